// easctl thresholds: whether the library accepts a threshold file, and what becomes of it.
#include <memory>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/model/ModelChoice.h"
#include "tools/easctl/model/ThresholdFile.h"

namespace easctl {
namespace {

struct Options {
    ModelChoice model;
    std::string file;
};

/// Where the value of a frequency comes from.
std::string source_of(int khz, const ThresholdFile& file, int default_khz) {
    if (khz == default_khz)
        return "default";
    if (file.given.count(khz) > 0)
        return "given";
    const bool below = !file.given.empty() && khz < file.given.rbegin()->first;
    return below ? "interpolated" : "extrapolated";
}

Table table_of(const ThresholdFile& file, const CoEfficients& model) {
    Table table({{"FREQUENCY", Align::right}, {"RUN TIME", Align::right}, {"VALUE"}});
    for (const auto& [khz, fraction] : file.thresholds.getThresValue()) {
        const std::string source = source_of(khz, file, model.getDefaultFrequency());
        const bool given = source == "given";
        table.add({ghz(khz), number(fraction * 100.0, 3) + " %",
                   Cell(given ? "line " + std::to_string(file.given.at(khz)) : source,
                        given ? Style::plain : Style::faint)});
    }
    return table;
}

Json json_of(const ThresholdFile& file, const CoEfficients& model) {
    Json rows = Json::array();
    for (const auto& [khz, fraction] : file.thresholds.getThresValue())
        rows.push_back({{"frequency_khz", khz},
                        {"time_change_pct", fraction * 100.0},
                        {"source", source_of(khz, file, model.getDefaultFrequency())}});
    return {{"valid", file.thresholds.isValid()},
            {"only_comments", file.thresholds.isAllCommentOut()},
            {"min_energy_pct", file.thresholds.get_def_perf()},
            {"min_time", rows},
            {"findings", file.findings.json()}};
}

void check(const Options& options, Globals& globals) {
    CoEfficients model = options.model.load();
    const ThresholdFile file = read_threshold_file(options.file, model);
    const bool valid = file.thresholds.isValid();
    if (!valid || file.findings.has_errors())
        globals.outcome = valid ? ExitCode::found : ExitCode::input;
    if (globals.json) {
        print_json(json_of(file, model));
        return;
    }
    const bool colored = globals.colored();
    print(file.findings.text(colored));
    if (!valid) {
        print(printable(options.file) + ": " + paint("refused", Style::bad, colored) +
              " by the library" +
              (file.thresholds.isAllCommentOut() ? ": nothing but comments" : "") + '\n');
        return;
    }
    print(printable(options.file) + ": " + paint("accepted", Style::good, colored) +
          "\n\nminimize_energy: a job may take " + number(file.thresholds.get_def_perf(), 3) +
          " % longer\nminimize_time: the run time must change by at least\n\n");
    if (file.thresholds.getThresValue().empty())
        print("  (the default frequency is the highest one)\n");
    else
        print(table_of(file, model).text(colored, 2));
}

}  // namespace

void add_threshold_commands(CLI::App& app, Globals& globals) {
    CLI::App& group = add_group(app, "thresholds", "the site's threshold file");
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        add_command(group, "check",
                    "Says whether the library accepts the file, which lines it drops and why, and\n"
                    "what it makes of the rest. Exit code 3: refused; 1: some lines are dropped.",
                    "easctl thresholds check thresholds.conf\n"
                    "easctl thresholds check thresholds.conf --model coefficients.txt --json");
    add_option(command, "FILE", options->file, "the threshold file, - for standard input")
        .environment(thresholds_variable)
        .required();
    options->model.add_to(command);
    set_action(command, [options, &globals] { check(*options, globals); });
}

}  // namespace easctl
