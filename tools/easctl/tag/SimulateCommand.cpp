// easctl simulate: what past jobs would have cost under each policy.
#include <cmath>
#include <memory>

#include "interface/FrequencyPolicy.h"
#include "interface/interface.h"
#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/model/ModelChoice.h"
#include "tools/easctl/model/ThresholdFile.h"
#include "tools/easctl/tag/ReturnCodes.h"
#include "tools/easctl/tag/SavingsReport.h"
#include "tools/easctl/tag/TagNames.h"

namespace easctl {

namespace {

constexpr std::size_t most_steps = 1000;         // of a sweep
constexpr std::uint64_t most_complaints = 20;    // rows that are named one by one
constexpr std::uint64_t rows_per_update = 1024;  // of the progress bar

struct Options {
    ModelChoice model;
    std::string thresholds;
    std::string jobs;
    std::string sweep;
    std::string class_column = "class";
    std::string plot;
    std::vector<std::string> policies{std::string(eas::minimize_energy),
                                      std::string(eas::minimize_time)};
    Format format = Format::table;
    bool strict = false;
};

/// "FROM:TO:STEP" in percent.
std::vector<double> steps_of(const std::string& sweep) {
    const std::size_t first = sweep.find(':');
    const std::size_t second = sweep.find(':', first == std::string::npos ? first : first + 1);
    std::array<std::optional<double>, 3> numbers;
    if (second != std::string::npos) {
        numbers = {parse_number(std::string_view(sweep).substr(0, first)),
                   parse_number(std::string_view(sweep).substr(first + 1, second - first - 1)),
                   parse_number(std::string_view(sweep).substr(second + 1))};
    }
    const auto [from, to, step] = numbers;
    if (!from || !to || !step || *from < 0.0 || *to < *from || *to > 100.0 || !(*step > 0.0)) {
        throw Failure(ExitCode::usage, "--sweep " + sweep + " is not FROM:TO:STEP in percent",
                      "for example --sweep 0:20:1");
    }
    if ((*to - *from) / *step >= static_cast<double>(most_steps)) {
        throw Failure(
            ExitCode::usage,
            "--sweep " + sweep + " has more than " + std::to_string(most_steps) + " steps",
            "take a larger STEP");
    }
    std::vector<double> steps;
    // Counted, not added up, so that the last step is not lost to rounding.
    const auto count = static_cast<std::size_t>(std::floor((*to - *from) / *step + 1e-9)) + 1;
    for (std::size_t i = 0; i < count; ++i)
        steps.push_back(*from + static_cast<double>(i) * *step);
    return steps;
}

EnergyPerfThreshold thresholds_of(const std::string& file, CoEfficients& coeffs) {
    EnergyPerfThreshold thresholds = parse_thresholds(read_input(file), coeffs);
    if (!thresholds.isValid()) {
        throw refusal(
            Function::initialize,
            thresholds.isAllCommentOut() ? EAS_THRESHOLDS_COMMENTED_OUT : EAS_BAD_THRESHOLD_FILE,
            file);
    }
    return thresholds;
}

std::vector<Scenario> scenarios_of(const Options& options, CoEfficients& coeffs) {
    std::vector<Scenario> scenarios;
    const std::vector<std::string> policies = each_once(options.policies);
    if (options.sweep.empty()) {
        const EnergyPerfThreshold thresholds = thresholds_of(options.thresholds, coeffs);
        for (const std::string& policy : policies)
            scenarios.push_back({policy, {}, thresholds});
        return scenarios;
    }
    for (const std::string& policy : policies) {
        for (const double step : steps_of(options.sweep))
            scenarios.push_back({policy, step, swept_thresholds(coeffs, step)});
    }
    return scenarios;
}

/// Adds every job of a file; rows that cannot be used are named and counted.
class Reading {
  public:
    Reading(const Globals& globals, const Options& options, int default_khz)
        : strict_(options.strict),
          jobs_(options.jobs, JobsFile::counters, options.class_column),
          progress_("jobs", jobs_.lines().bytes_total(), globals.quiet) {
        jobs_.require_frequency(default_khz);
    }

    void run(Savings& savings) {
        JobRow row;
        for (CsvFile::Step step{}; (step = jobs_.next(row)) != CsvFile::Step::end;) {
            if (step != CsvFile::Step::row)
                complain(jobs_.problem());
            else if (!savings.add(row))
                complain(jobs_.where() + ": the figures of this job allow no prediction");
            if (++rows_ % rows_per_update == 0)
                progress_.update(jobs_.lines().bytes_read(), std::to_string(rows_) + " rows");
        }
        progress_.hide();
        if (bad_ > 0)
            easctl::complain({ExitCode::found, std::to_string(bad_) + " of " +
                                                   std::to_string(rows_) +
                                                   " rows could not be used and are left out"});
        if (rows_ == bad_)
            throw Failure(ExitCode::input, jobs_.lines().path() + ": no job that can be used");
    }

    [[nodiscard]] std::uint64_t bad() const { return bad_; }
    [[nodiscard]] std::uint64_t passed_over() const { return jobs_.passed_over(); }

  private:
    void complain(const std::string& message) {
        if (strict_)
            throw Failure(ExitCode::input, message, "without --strict such rows are left out");
        progress_.hide();
        if (++bad_ <= most_complaints)
            easctl::complain({ExitCode::input, message});
        else if (bad_ == most_complaints + 1)
            easctl::complain(
                {ExitCode::input, "further rows that cannot be used are only counted"});
    }

    bool strict_;
    JobsFile jobs_;
    Progress progress_;
    std::uint64_t rows_ = 0;
    std::uint64_t bad_ = 0;
};

void simulate(Globals& globals, const Options& options) {
    if (options.sweep.empty() && options.thresholds.empty()) {
        throw Failure(ExitCode::usage, "which thresholds?",
                      "give --thresholds FILE (or EASCTL_THRESHOLDS), or --sweep FROM:TO:STEP");
    }
    CoEfficients coeffs = options.model.load();
    Savings savings(coeffs, scenarios_of(options, coeffs));
    Reading reading(globals, options, coeffs.getDefaultFrequency());
    reading.run(savings);

    const SavingsReport report(savings);
    if (globals.json) {
        Json json = report.json();
        json["rows_left_out"] = reading.bad();
        json["runs_passed_over"] = reading.passed_over();
        print_json(json);
    } else {
        print(options.format == Format::csv ? report.csv() : report.text(globals.colored()));
    }
    if (options.format == Format::csv && !report.class_remark().empty())
        remark(globals, report.class_remark());
    if (reading.passed_over() > 0)
        remark(globals,
               std::to_string(reading.passed_over()) +
                   " runs passed over: not at the default frequency, not measured, without "
                   "counters, or failed");
    if (reading.bad() > 0)
        globals.outcome = ExitCode::found;
    draw(options.plot, report.plot(), globals);
}

}  // namespace

void add_simulate_command(CLI::App& app, Globals& globals) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = add_command(
        app, "simulate", "what past jobs would have cost under each policy; 1: rows were left out",
        "easctl simulate jobs.csv --thresholds /etc/eas/thresholds.conf\n"
        "easctl simulate jobs.csv --model coefficients.txt --sweep 0:20:1 --plot sweep.svg\n"
        "zcat jobs.csv.gz | easctl simulate - --class-column user --format csv");
    add_option(command, "JOBS", options->jobs,
               "CSV file of jobs, - for standard input; its header names the columns cycles,\n"
               "instructions, memory_bytes, elapsed_s, power_w and, if there are such, count\n"
               "(how often the job ran), class, and frequency_khz: other rows than those of\n"
               "the default frequency are left out. Or runs as of easctl history")
        .required();
    options->model.add_to(command);
    add_thresholds_option(command, options->thresholds);
    add_option(command, "--sweep", options->sweep,
               "FROM:TO:STEP, thresholds in percent instead of the file: what minimize_energy "
               "may lose, and\n"
               "minimize_time must gain at the top frequency, proportionally less below it")
        .type_name("RANGE");
    add_option(command, "--policy", options->policies, "only this one (default: both)")
        .check(a_policy())
        .one_value_each()  // the file of jobs may follow
        .type_name("POLICY");
    add_option(command, "--class-column", options->class_column,
               "column that names the class of a job; the first 1000 classes of the file are\n"
               "told apart, later ones are summed up as \"(other)\"")
        .show_default()
        .type_name("NAME");
    add_format_option(command, options->format);
    add_plot_option(command, options->plot, "draw the changes");
    add_flag(command, "--strict", options->strict, "stop at the first row that cannot be used");
    set_action(command, [options, &globals] { simulate(globals, *options); });
}

}  // namespace easctl
