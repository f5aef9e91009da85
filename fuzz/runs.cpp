// Runs of the past, as accounting, records or CSV: whatever is read is finite, and says the same
// after it was written and read again.
#include <cmath>

#include "fuzz/Fuzz.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/history/RunCsv.h"

using eas::fuzz::check;
using namespace easctl;

namespace {

LineReader lines_of(const std::string& text) {
    return {"input", memory_file(text)};
}

std::string written_again(const std::string& line) {
    RunCsv csv(lines_of(run_csv_header() + line));
    Run run;
    check(csv.next(run) == RunForm::Step::run, "a run that was written is read");
    Run behind;
    check(csv.next(behind) == RunForm::Step::end, "a run is one line");
    return run_csv_line(run);
}

void check_run(const Run& run) {
    for_each_member(
        run, [](const char*, const std::string&) {},
        [](const char*, double figure) {
            check(std::isfinite(figure) && figure >= 0, "a figure is known, or it is none");
        });
    const auto record = eas::job::find_record("a; " + eas::job::to_text(run) + "; b");
    check(record && eas::job::to_text(*record) == eas::job::to_text(run), "a record stays itself");
    const std::string line = run_csv_line(run);
    if (line.size() > LineReader::max_line / 2)
        return;
    // An outcome that was not said becomes one, once.
    const std::string again = written_again(line);
    check(written_again(again) == again, "a run stays itself");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const auto form = read_runs(lines_of(eas::fuzz::text_of(data, size)));
        Run run;
        for (RunForm::Step step{}; (step = form->next(run)) != RunForm::Step::end;) {
            if (step == RunForm::Step::run)
                check_run(run);
        }
    } catch (const Failure& failure) {
        check(failure.code == ExitCode::input, "a file is wrong, nothing else");
    }
    return 0;
}
