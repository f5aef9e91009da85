// easctl: the administrator's tool of the energy-aware scheduling library.
#include <cstdio>
#include <map>
#include <string>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/CommandTree.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/history/DriftCommand.h"
#include "tools/easctl/history/HistoryCommand.h"
#include "tools/easctl/history/MetricsCommand.h"
#include "tools/easctl/history/ReportCommand.h"

namespace easctl {
namespace {

void add_global_options(CLI::App& app, Globals& globals) {
    static const std::map<std::string, ColorMode> modes{
        {"auto", ColorMode::automatic}, {"always", ColorMode::always}, {"never", ColorMode::never}};
    add_flag(app, "--json", globals.json, "print one JSON document on standard output");
    add_flag(app, "-q,--quiet", globals.quiet, "no remarks and no progress on standard error");
    add_option(app, "--color", "auto (on a terminal, without NO_COLOR), always, never",
               [&globals](const std::string& name) { globals.color = modes.at(name); })
        .check(one_of({"auto", "always", "never"}))
        .type_name("WHEN");
}

void add_all_commands(CLI::App& app, Globals& globals) {
    add_db_commands(app, globals);
    CLI::App& model = add_model_commands(app, globals);
    add_fit_command(model, globals);
    add_calibrate_command(model, globals);
    add_threshold_commands(app, globals);
    add_doctor_command(app, globals);
    add_tag_commands(app, globals);
    add_simulate_command(app, globals);
    add_history_command(app, globals);
    add_report_command(app, globals);
    add_metrics_command(app, globals);
    add_drift_command(app, globals);
    add_node_commands(app, globals);
    add_job_commands(app, globals);
}

/// Says what went wrong: for a person on standard error, with --json also as the result.
int report(const Failure& failure, const Globals& globals) {
    complain(failure);
    const int code = static_cast<int>(failure.code);
    if (globals.json) {
        Json error{{"code", code}, {"name", name_of(failure.code)}, {"message", failure.message}};
        if (!failure.hint.empty())
            error["hint"] = failure.hint;
        std::puts(Json{{"error", error}}.text().c_str());
    }
    return code;
}

int run(CommandLine& line, Globals& globals, int argc, char** argv) {
    try {
        line.run(argc, argv);
        flush_output();
        return static_cast<int>(globals.outcome);
    } catch (const Failure& failure) {
        return report(failure, globals);
    } catch (const std::exception& e) {
        return report({ExitCode::found, std::string("unexpected: ") + e.what()}, globals);
    }
}

constexpr const char* footer =
    "From nothing to a working cluster:\n"
    "  easctl db init\n"
    "  easctl model import coefficients.txt --cluster NAME\n"
    "  easctl thresholds check thresholds.conf --cluster NAME\n"
    "  easctl doctor --cluster NAME --thresholds thresholds.conf\n\n"
    "Exit codes: 0 ok; 1 a check found something, a part failed, or the result could not be\n"
    "written; 2 usage; 3 an input file is wrong (the message has file and line); 4 database;\n"
    "5 the library refused (the message names its return code); 6 hardware or a privilege of\n"
    "the node is missing; 130 interrupted.\n"
    "With --json, standard output holds one JSON document: the result, or {\"error\": ...}.\n"
    "\"easctl COMMAND --help\" shows the options of a command, with examples.";

}  // namespace
}  // namespace easctl

int main(int argc, char** argv) {
    easctl::Globals globals;
    easctl::CommandLine line("easctl",
                             "The administrator's tool of the energy-aware scheduling library.",
                             "easctl " EASCTL_VERSION, easctl::footer);
    easctl::add_global_options(line.root(), globals);
    easctl::add_all_commands(line.root(), globals);
    easctl::add_completion_command(line.root());
    return easctl::run(line, globals, argc, argv);
}
