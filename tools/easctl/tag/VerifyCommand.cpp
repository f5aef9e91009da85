#include "tools/easctl/tag/VerifyCommand.h"

#include <memory>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/tag/FailedRow.h"
#include "tools/easctl/tag/JobOptions.h"
#include "tools/easctl/tag/JobsFile.h"
#include "tools/easctl/tag/TagVerify.h"

namespace easctl {

namespace {

struct Options {
    LibraryOptions library;
    TagNames names;
    JobRun run{};
    std::array<double, 3> counters{};
    std::string jobs;
    std::string meter;
    std::array<double, 3> limits_pct{10.0, 10.0, 15.0};  // power, time, energy

    [[nodiscard]] ErrorLimits limits() const {
        return {limits_pct[0] / 100.0, limits_pct[1] / 100.0, limits_pct[2] / 100.0};
    }
};

/// What each policy selects by the tag, and by the run itself.
struct Selections {
    std::string policy;
    int by_tag;
    int by_run;
};

std::vector<Selections> compare_selections(const Library& library, const EnergyTag& tag,
                                           const JobRun& run) {
    std::vector<Selections> all;
    const auto own = tag_of_run(library.coefficients(), tag, run);
    if (!own)
        return all;
    for (const auto policy : {eas::minimize_energy, eas::minimize_time}) {
        all.push_back({std::string(policy),
                       eas::select_frequency(tag, policy, library.thresholds()).frequency,
                       eas::select_frequency(*own, policy, library.thresholds()).frequency});
    }
    return all;
}

Json as_json(const Comparison& comparison) {
    return {{"predicted", comparison.predicted},
            {"measured", comparison.measured},
            {"error_pct", 100.0 * comparison.error()}};
}

/// A run beside what its tag predicted for it.
struct Verified {
    TagNames names;
    JobRun run;
    Verification figures;
    bool describes;
    std::vector<Selections> selections;
};

Json as_json(const Verified& one) {
    Json json{{"user", one.names.user},
              {"tag", one.names.tag},
              {"frequency_khz", one.run.frequency},
              {"power_w", as_json(one.figures.power)},
              {"elapsed_s", as_json(one.figures.time)},
              {"energy_j", as_json(one.figures.energy)},
              {"describes_job", one.describes}};
    for (const Selections& s : one.selections)
        json["selections"][s.policy] = {{"tag_khz", s.by_tag}, {"run_khz", s.by_run}};
    return json;
}

Table empty_table() {
    std::vector<Column> columns{{"User"}, {"Tag"}, {"Frequency", Align::right}};
    for (const char* figure : {"Power W", "Time s", "Energy kWh"}) {
        for (const char* title : {figure, "measured", "error %"})
            columns.push_back({title, Align::right});
    }
    columns.push_back({"Verdict"});
    return Table(std::move(columns));
}

std::vector<Cell> as_row(const Verified& one, const ErrorLimits& limits) {
    std::vector<Cell> row{one.names.user, one.names.tag, ghz(one.run.frequency)};
    const auto add = [&](const Comparison& c, double scale, int decimals, double limit) {
        row.emplace_back(number(c.predicted / scale, decimals));
        row.emplace_back(number(c.measured / scale, decimals));
        row.emplace_back(signed_percent(c.error(), 1),
                         std::abs(c.error()) <= limit ? Style::plain : Style::bad);
    };
    add(one.figures.power, 1.0, 1, limits.power);
    add(one.figures.time, 1.0, 0, limits.time);
    add(one.figures.energy, joules_per_kwh, 4, limits.energy);
    row.push_back(one.describes ? Cell("ok", Style::good) : Cell("STALE", Style::bad));
    return row;
}

class Verifier {
  public:
    Verifier(Globals& globals, Library& library, const ErrorLimits& limits)
        : globals_(globals), library_(library), limits_(limits) {}

    /// `where` names the row of a file; empty without one.
    void check(const TagNames& names, const JobRun& run, const std::string& where) {
        const std::vector<EnergyTag> tags = library_.query(names.user, names.tag);
        const EnergyTag& tag = the_only(tags, names);
        const auto figures = verify(tag, run);
        if (!figures) {
            throw Failure(ExitCode::found,
                          name_of_tag(names.user, names.tag) + " predicts nothing for " +
                              std::to_string(run.frequency) + " kHz",
                          "give the frequency at which the job ran, one of easctl tag show");
        }
        const Verified one{names, run, *figures, figures->within(limits_),
                           compare_selections(library_, tag, run)};
        if (globals_.json)
            runs_.push_back(as_json(one));
        else
            table_.add(as_row(one, limits_));
        remark_on(one, where);
    }

    void failed(const FailedRow& row) {
        complain({row.failure.code, row.text()});
        globals_.outcome = ExitCode::found;
        failed_.push_back(row.json());
    }

    void finish() {
        if (globals_.json) {
            print_json({{"runs", std::move(runs_)}, {"failed", std::move(failed_)}});
        } else if (!table_.empty()) {
            print(table_.text(globals_.colored()));
        }
        for (const std::string& text : remarks_)
            remark(globals_, printable(text));
    }

  private:
    void remark_on(const Verified& one, const std::string& where) {
        const std::string which =
            (where.empty() ? "" : where + ": ") + name_of_tag(one.names.user, one.names.tag);
        if (!one.describes) {
            globals_.outcome = ExitCode::found;
            remarks_.push_back(which + " no longer describes this job: remove it, run the job at " +
                               ghz(library_.default_khz()) + " and generate it again");
        }
        for (const Selections& s : one.selections) {
            if (s.by_tag != s.by_run)
                remarks_.push_back(which + ": " + s.policy + " selects " + ghz(s.by_tag) +
                                   "; by this run's own figures it would select " + ghz(s.by_run));
        }
    }

    Globals& globals_;
    Library& library_;
    ErrorLimits limits_;
    Table table_ = empty_table();
    std::vector<std::string> remarks_;
    Json runs_ = Json::array();
    Json failed_ = Json::array();
};

void verify_file(Verifier& verifier, const Options& options) {
    JobsFile jobs(options.jobs, JobsFile::names | JobsFile::frequency);
    jobs.require_meter(options.meter);
    JobRow row;
    for (CsvFile::Step step{}; (step = jobs.next(row)) != CsvFile::Step::end;) {
        if (step != CsvFile::Step::row) {
            verifier.failed({jobs.where(), {ExitCode::input, jobs.reason()}, {}});
            continue;
        }
        JobRun run{row.frequency_khz, row.elapsed_s, row.power_w, {}};
        if (row.has_counters)
            run.counters = row.counters;
        const TagNames names{std::string(row.user), std::string(row.tag)};
        try {
            verifier.check(names, run, jobs.where());
        } catch (const Failure& failure) {
            if (failure.code != ExitCode::found && failure.code != ExitCode::refused &&
                failure.code != ExitCode::usage)
                throw;
            verifier.failed({jobs.where(), failure, names});
        }
    }
}

void run_verify(Globals& globals, const Options& options, const JobOptions& given) {
    const bool single = given.describe_one();
    Library library(options.library);
    Verifier verifier(globals, library, options.limits());
    if (single) {
        JobRun run = options.run;
        if (given.has_optional())
            run.counters = options.counters;
        verifier.check(options.names, run, "");
    } else {
        verify_file(verifier, options);
    }
    verifier.finish();
}

/// The options of one run, and the file of many.
JobOptions add_run_options(CLI::App& command, Options& options) {
    JobOptions given(command, options.jobs,
                     "CSV file of runs, - for standard input; its header names the columns\n"
                     "user, tag, frequency_khz, elapsed_s, power_w and, if at hand, cycles,\n"
                     "instructions, memory_bytes, meter; or runs as of easctl history, of which\n"
                     "those that ran with a tag and were measured are taken");
    given.add("--user", options.names.user, "owner of the tag", "NAME");
    given.add("--tag", options.names.tag, "name of the tag", "NAME");
    given.add("--frequency", options.run.frequency, "at which the job ran", "KHZ");
    given.add("--elapsed", options.run.elapsed_s, "run time", "S");
    option_of(command, "--elapsed").transform(whole_seconds());
    given.add("--power", options.run.power_w, "mean power of a node", "W");
    given.add_optional("--cycles", options.counters[0], "processor cycles", "N");
    given.add_optional("--instructions", options.counters[1], "instructions", "N");
    given.add_optional("--memory-bytes", options.counters[2], "bytes of memory traffic", "N");
    return given;
}

}  // namespace

void add_tag_verify(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = add_command(
        group, "verify", "hold a later run beside what its tag predicted; 1: a tag is stale",
        "easctl tag verify --user anna --tag hpl --frequency 2000000 --elapsed 2065 --power 258\n"
        "easctl tag verify --jobs runs.csv --max-time-error 5");
    options->library.add_to(command);
    const JobOptions given = add_run_options(command, *options);
    add_option(command, "--meter", options->meter,
               "what measured the model, as the column meter of its calibration says: runs that\n"
               "another meter measured are refused")
        .type_name("TEXT");
    constexpr std::array limits{"--max-power-error", "--max-time-error", "--max-energy-error"};
    for (std::size_t i = 0; i < limits.size(); ++i) {
        add_option(command, limits[i], options->limits_pct[i],
                   "largest error at which a tag still describes its job")
            .show_default()
            .check(number_from(0.0))
            .type_name("PERCENT");
    }
    set_action(command, [options, given, &globals] { run_verify(globals, *options, given); });
}

}  // namespace easctl
