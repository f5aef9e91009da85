#include "tools/easctl/history/RunReader.h"

#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/history/RunCsv.h"
#include "tools/easctl/history/SacctTable.h"

namespace easctl {
namespace {

/// A line for each run.
class RecordLines : public RunForm {
  public:
    explicit RecordLines(LineReader lines) : lines_(std::move(lines)) {}

    Step next(Run& run) override {
        char* text = nullptr;
        std::size_t length = 0;
        do {
            if (!lines_.next(text, length))
                return Step::end;
        } while (!lines_.too_long() && (length == 0 || *text == '#'));
        const auto record = eas::job::find_record({text, length});
        if (lines_.too_long() || !record) {
            problem_ = lines_.too_long() ? "the line is longer than 64 KiB" : "no record of a run";
            return Step::bad;
        }
        run = Run();
        static_cast<eas::job::RunRecord&>(run) = *record;
        return Step::run;
    }
    [[nodiscard]] const LineReader& lines() const override { return lines_; }

  private:
    LineReader lines_;
};

}  // namespace

std::string RunForm::where() const {
    return lines().path() + ":" + std::to_string(lines().line());
}

bool is_csv_header(std::string_view line) {
    return line.find(',') != std::string_view::npos && line.find('|') == std::string_view::npos &&
           !eas::job::find_record(line);
}

std::unique_ptr<RunForm> read_runs(LineReader lines) {
    const std::string first(lines.peek());
    if (is_sacct_header(first))
        return std::make_unique<SacctTable>(std::move(lines));
    if (is_csv_header(first))
        return std::make_unique<RunCsv>(std::move(lines));
    if (eas::job::find_record(first))
        return std::make_unique<RecordLines>(std::move(lines));
    throw Failure(
        ExitCode::input,
        lines.path() + (first.empty() ? ": empty" : ":1: neither runs nor the names of columns"),
        "what is read: the output of sacct --parsable2 with its header and AdminComment, a file "
        "of records, or a CSV file of easctl history");
}

}  // namespace easctl
