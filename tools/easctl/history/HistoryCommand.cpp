#include "tools/easctl/history/HistoryCommand.h"

#include <cmath>
#include <ctime>
#include <deque>
#include <memory>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/history/RunCsv.h"
#include "tools/easctl/history/RunJournal.h"
#include "tools/easctl/history/RunSource.h"

namespace easctl {
namespace {

struct HistoryOptions {
    RunOptions runs;
    Format format = Format::table;
    std::string user, tag, policy, outcome;
    int last = 40;
    std::string append;
    double settle_s = 900;

    [[nodiscard]] bool wants(const Run& run) const {
        const auto fits = [](const std::string& asked, const std::string& text) {
            return asked.empty() || asked == text;
        };
        return fits(user, run.user) && fits(tag, run.tag) && fits(policy, run.policy) &&
               fits(outcome, run.outcome);
    }
};

std::string shown(const std::optional<double>& figure, double unit, int decimals) {
    return figure ? number(*figure / unit, decimals) : "";
}

/// By how much the measurement lies above the prediction, percent.
std::string miss(const std::optional<double>& measured, const std::optional<double>& predicted) {
    const bool known = measured && predicted && *predicted > 0.0;
    return known ? signed_percent(*measured / *predicted - 1.0, 1) : "";
}

std::vector<Cell> row_of(const Run& run) {
    const auto when = run.when();
    const bool bad = run.outcome == "failed";
    return {when ? day_of(*when) : "",
            run.job,
            run.user,
            run.tag,
            Cell(run.outcome, bad ? Style::warning : Style::plain),
            run.frequency ? ghz(static_cast<int>(*run.frequency)) : "",
            shown(run.nodes, 1, 0),
            shown(run.seconds, 1, 1),
            shown(run.joules, joules_per_kwh, 4),
            miss(run.seconds, run.predicted_seconds),
            miss(run.joules, run.predicted_joules),
            miss(run.joules, run.default_joules)};
}

Json as_json(const Run& run) {
    Json json = Json::object();
    for_each_member(
        run, [&](const char* name, const std::string& text) { json[name] = text; },
        [&](const char* name, double figure) { json[name] = figure; });
    return json;
}

/// Shows the last runs, or prints all of them as CSV while they are read.
class Output {
  public:
    Output(const Globals& globals, const HistoryOptions& options)
        : globals_(globals), options_(options), csv_(options.format == Format::csv) {
        if (csv_)
            print(run_csv_header());
    }

    void add(const Run& run) {
        ++count_;
        if (csv_) {
            print(run_csv_line(run));
            return;
        }
        last_.push_back(run);
        if (last_.size() > static_cast<std::size_t>(options_.last))
            last_.pop_front();
    }

    void finish(const RunCounts& counts) {
        if (globals_.json)
            print_document(counts);
        else if (!csv_)
            print_table();
        if (globals_.json || csv_)
            return;
        remark(globals_,
               std::to_string(count_) + " runs" +
                   (count_ > last_.size() ? ", the last " + std::to_string(last_.size()) + " shown"
                                          : "") +
                   (counts.without_record > 0
                        ? "; " + std::to_string(counts.without_record) + " jobs have no record"
                        : ""));
    }

  private:
    void print_document(const RunCounts& counts) {
        Json runs = Json::array();
        for (const Run& run : last_)
            runs.push_back(as_json(run));
        print_json({{"runs", std::move(runs)},
                    {"count", count_},
                    {"jobs_without_record", counts.without_record},
                    {"lines_left_out", counts.unreadable}});
    }

    void print_table() {
        Table table({{"Ended"},
                     {"Job"},
                     {"User"},
                     {"Tag"},
                     {"Outcome"},
                     {"Frequency", Align::right},
                     {"Nodes", Align::right},
                     {"Time s", Align::right},
                     {"Energy kWh", Align::right},
                     {"time miss %", Align::right},
                     {"energy miss %", Align::right},
                     {"to default %", Align::right}});
        for (const Run& run : last_)
            table.add(row_of(run));
        if (!table.empty())
            print(table.text(globals_.colored()));
    }

    const Globals& globals_;
    const HistoryOptions& options_;
    bool csv_;
    std::size_t count_ = 0;
    std::deque<Run> last_;
};

void show(Globals& globals, const HistoryOptions& options) {
    if (globals.json && options.format == Format::csv)
        throw Failure(ExitCode::usage, "--json and --format csv: which of them?");
    RunSource source(globals, options.runs);
    Output output(globals, options);
    for (Run run; source.next(run);) {
        if (options.wants(run))
            output.add(run);
    }
    source.finish(globals);
    output.finish(source.counts());
}

/// Asks sacct for what ended since the last update. The latest minutes are left to the next one: a
/// record is written some time after its job has ended.
void append(Globals& globals, const HistoryOptions& options) {
    if (!options.runs.file.empty() || !options.runs.to.empty())
        throw Failure(ExitCode::usage, "--append takes its runs from sacct, up to now",
                      "leave the file and --to away");
    RunJournal journal(options.append);
    const double until = std::floor(static_cast<double>(std::time(nullptr)) - options.settle_s);
    if (!journal.until() && options.runs.from.empty())
        throw Failure(ExitCode::usage, options.append + " is new: since when?",
                      "give --from TIME the first time");
    unsigned long count = 0;
    const double from = journal.until() ? *journal.until() : parse_moment(options.runs.from);
    if (from < until) {
        RunOptions runs = options.runs;
        runs.from = number(from, 0);
        runs.to = number(until, 0);
        RunSource source(globals, runs);
        for (Run run; source.next(run); ++count)
            journal.add(run);
        source.finish(globals);
        journal.finish(until);
    }
    if (globals.json)
        print_json({{"file", options.append}, {"appended", count}, {"until", journal.until()}});
    else
        remark(globals, std::to_string(count) + " runs appended to " + options.append);
}

}  // namespace

void add_history_command(CLI::App& app, Globals& globals) {
    const auto options = std::make_shared<HistoryOptions>();
    CLI::App& command =
        add_command(app, "history", "what runs used, and what was expected of them",
                    "easctl history --from 7d\n"
                    "easctl history runs.csv --user anna --last 100\n"
                    "easctl history --from 2026-01-01 --format csv >runs.csv\n"
                    "easctl history --append /var/lib/eas/runs.csv --from 2026-01-01");
    options->runs.add_to(command, "RUNS");
    options->runs.add_cluster_to(command);
    const auto filter = [&](const char* name, std::string& value, const char* description) {
        add_option(command, name, value, description).check(some_text()).type_name("NAME");
    };
    filter("--user", options->user, "only runs of this user");
    filter("--tag", options->tag, "only runs with this tag");
    filter("--policy", options->policy, "only runs under this policy");
    filter("--outcome", options->outcome, "only measured, used, observed or failed runs");
    add_option(command, "--last", options->last, "how many of them the table and --json show")
        .show_default()
        .check(whole_number_from(0, 100'000))
        .type_name("N");
    add_format_option(command, options->format);
    add_option(command, "--append", options->append,
               "add what ended since the last time to this file, instead of showing runs")
        .check(some_text())
        .type_name("FILE");
    add_option(command, "--settle", options->settle_s,
               "with --append: leave that much to the next time, for records yet to be written")
        .show_default()
        .check(number_from(0.0, 86'400.0))
        .type_name("S");
    set_action(command, [options, &globals] {
        if (options->append.empty())
            show(globals, *options);
        else
            append(globals, *options);
    });
}

}  // namespace easctl
