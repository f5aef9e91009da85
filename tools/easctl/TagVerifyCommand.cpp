// easctl tag verify: a later run's measurements beside what its tag predicted.
#include "common/CoEfficients.h"
#include "common/EnergyPerfThreshold.h"
#include "tools/easctl/JobsFile.h"
#include "tools/easctl/TagCommands.h"
#include "tools/easctl/TagVerify.h"
#include "tools/easctl/Units.h"

namespace easctl {

namespace {

struct Options {
    LibraryOptions library;
    TagNames names;
    Run run{};
    std::array<double, 3> counters{};
    std::string jobs;
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
                                           const Run& run) {
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
            {"error", comparison.error()}};
}

class Verifier {
  public:
    Verifier(Globals& globals, Library& library, const ErrorLimits& limits)
        : globals_(globals), library_(library), limits_(limits) {}

    /// `where` names the row of a file; empty without one.
    void check(const TagNames& names, const Run& run, const std::string& where) {
        const std::vector<EnergyTag> tags = library_.query(names.user, names.tag);
        const EnergyTag& tag = the_only(tags, names);
        const auto verification = verify(tag, run);
        if (!verification) {
            throw Failure(ExitCode::found,
                          name_of_tag(names.user, names.tag) + " predicts nothing for " +
                              std::to_string(run.frequency) + " KHz",
                          "give the frequency at which the job ran, one of easctl tag show");
        }
        const bool describes = verification->within(limits_);
        const auto selections = compare_selections(library_, tag, run);
        if (globals_.json)
            add_json(names, run, *verification, describes, selections);
        else
            add_row(names, run, *verification, describes);
        remark_on(names, describes, selections, where);
    }

    void failed(const std::string& message) {
        remark(globals_, printable(message));
        globals_.outcome = ExitCode::found;
        failed_.push_back(message);
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
    void add_json(const TagNames& names, const Run& run, const Verification& verification,
                  bool describes, const std::vector<Selections>& selections) {
        Json json{{"user", names.user},
                  {"tag", names.tag},
                  {"frequency_khz", run.frequency},
                  {"power_w", as_json(verification.power)},
                  {"elapsed_s", as_json(verification.time)},
                  {"energy_j", as_json(verification.energy)},
                  {"describes_job", describes}};
        for (const Selections& s : selections)
            json["selections"][s.policy] = {{"tag_khz", s.by_tag}, {"run_khz", s.by_run}};
        runs_.push_back(std::move(json));
    }

    void add_row(const TagNames& names, const Run& run, const Verification& verification,
                 bool describes) {
        std::vector<Cell> row{names.user, names.tag, ghz(run.frequency)};
        const auto add = [&](const Comparison& c, double scale, int decimals, double limit) {
            row.emplace_back(number(c.predicted / scale, decimals));
            row.emplace_back(number(c.measured / scale, decimals));
            row.emplace_back(signed_percent(c.error(), 1),
                             std::abs(c.error()) <= limit ? Style::plain : Style::bad);
        };
        add(verification.power, 1.0, 1, limits_.power);
        add(verification.time, 1.0, 0, limits_.time);
        add(verification.energy, joules_per_kwh, 4, limits_.energy);
        row.push_back(describes ? Cell("ok", Style::good) : Cell("STALE", Style::bad));
        table_.add(std::move(row));
    }

    void remark_on(const TagNames& names, bool describes, const std::vector<Selections>& selections,
                   const std::string& where) {
        const std::string which =
            (where.empty() ? "" : where + ": ") + name_of_tag(names.user, names.tag);
        if (!describes) {
            globals_.outcome = ExitCode::found;
            remarks_.push_back(which + " no longer describes this job: remove it, run the job at " +
                               ghz(library_.default_khz()) + " and generate it again");
        }
        for (const Selections& s : selections) {
            if (s.by_tag != s.by_run)
                remarks_.push_back(which + ": " + s.policy + " selects " + ghz(s.by_tag) +
                                   "; by this run's own figures it would select " + ghz(s.by_run));
        }
    }

    Globals& globals_;
    Library& library_;
    ErrorLimits limits_;
    Table table_{{{"User"},
                  {"Tag"},
                  {"Frequency", Align::right},
                  {"Power W", Align::right},
                  {"measured", Align::right},
                  {"error %", Align::right},
                  {"Time s", Align::right},
                  {"measured", Align::right},
                  {"error %", Align::right},
                  {"Energy kWh", Align::right},
                  {"measured", Align::right},
                  {"error %", Align::right},
                  {"Verdict"}}};
    std::vector<std::string> remarks_;
    Json runs_ = Json::array();
    Json failed_ = Json::array();
};

void verify_file(Verifier& verifier, const std::string& path) {
    JobsFile jobs(path, JobsFile::names | JobsFile::frequency);
    JobRow row;
    for (CsvFile::Step step{}; (step = jobs.next(row)) != CsvFile::Step::end;) {
        if (step != CsvFile::Step::row) {
            verifier.failed(jobs.problem());
            continue;
        }
        Run run{row.frequency_khz, row.elapsed_s, row.power_w, {}};
        if (row.has_counters)
            run.counters = row.counters;
        try {
            verifier.check({std::string(row.user), std::string(row.tag)}, run, jobs.where());
        } catch (const Failure& failure) {
            if (failure.code != ExitCode::found && failure.code != ExitCode::refused)
                throw;
            verifier.failed(jobs.where() + ": " + failure.message);
        }
    }
}

void run_verify(Globals& globals, Options options) {
    const bool single = options.jobs.empty();
    const Run& run = options.run;
    if (single && (options.names.user.empty() || options.names.tag.empty() || run.frequency < 1 ||
                   run.elapsed_s < 1 || !(run.power_w > 0.0))) {
        throw Failure(ExitCode::usage, "which run?",
                      "give --jobs FILE, or --user, --tag, --frequency, --elapsed and --power");
    }
    if (options.counters[1] > 0.0)
        options.run.counters = options.counters;
    Library library(options.library);
    Verifier verifier(globals, library, options.limits());
    if (single)
        verifier.check(options.names, run, "");
    else
        verify_file(verifier, options.jobs);
    verifier.finish();
}

}  // namespace

void add_tag_verify(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = add_command(
        group, "verify", "hold a later run beside what its tag predicted; 1: a tag is stale",
        "easctl tag verify --user anna --tag hpl --frequency 2000000 --elapsed 2065 --power 258\n"
        "easctl tag verify --jobs runs.csv --max-time-error 5");
    options->library.add_to(command);
    OneOrMany given(command, options->jobs,
                    "CSV file of runs, - for standard input; its header names the columns\n"
                    "user, tag, frequency_khz, elapsed_s, power_w and, if at hand, cycles,\n"
                    "instructions, memory_bytes");
    given.add("--user", options->names.user, "owner of the tag", "NAME");
    given.add("--tag", options->names.tag, "name of the tag", "NAME");
    given.add("--frequency", options->run.frequency, "at which the job ran", "KHZ");
    given.add("--elapsed", options->run.elapsed_s, "run time", "S");
    given.add("--power", options->run.power_w, "mean power of a node", "W");
    given.add("--cycles", options->counters[0], "processor cycles", "N");
    given.add("--instructions", options->counters[1], "instructions", "N");
    given.add("--memory-bytes", options->counters[2], "bytes of memory traffic", "N");
    constexpr std::array limits{"--max-power-error", "--max-time-error", "--max-energy-error"};
    for (std::size_t i = 0; i < limits.size(); ++i) {
        command
            .add_option(limits[i], options->limits_pct[i],
                        "largest error at which a tag still describes its job")
            ->capture_default_str()
            ->check(CLI::NonNegativeNumber)
            ->type_name("PERCENT");
    }
    command.callback([options, given, &globals] {
        given.check();
        run_verify(globals, *options);
    });
}

}  // namespace easctl
