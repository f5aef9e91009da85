// easctl: the administrator's tool of the energy-aware scheduling library.
#include <CLI/CLI.hpp>
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
    app.set_version_flag("--version", "easctl " EASCTL_VERSION);
    app.add_flag("--json", globals.json, "print one JSON document on standard output");
    app.add_flag("-q,--quiet", globals.quiet, "no remarks and no progress on standard error");
    app.add_option_function<std::string>(
           "--color", [&globals](const std::string& name) { globals.color = modes.at(name); },
           "auto (on a terminal, without NO_COLOR), always, never")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->type_name("WHEN");
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
        const std::string text =
            Json{{"error", error}}.dump(2, ' ', false, Json::error_handler_t::replace);
        std::puts(text.c_str());
    }
    return code;
}

/// What the command line lacks. A word that is no command is named, with the commands there are.
Failure usage_failure(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App* command = &app;
    std::string path = app.get_name();
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        path += ' ' + command->get_name();
    }
    std::string names;
    for (const CLI::App* below : command->get_subcommands([](const CLI::App*) { return true; })) {
        if (!below->get_name().empty() && !below->get_group().empty())
            names += (names.empty() ? "" : ", ") + below->get_name();
    }
    if (names.empty() || dynamic_cast<const CLI::RequiredError*>(&error) == nullptr)
        return {ExitCode::usage, error.what(), path + " --help"};
    const std::vector<std::string> words = app.remaining(true);
    if (words.empty())
        return {ExitCode::usage, path + ": which command?", "one of " + names};
    const char* const kind = words.front().front() == '-' ? "option" : "command";
    return {ExitCode::usage, '"' + words.front() + "\" is no " + kind + " of " + path,
            "its commands: " + names};
}

/// Runs the command, or prints the help or version that was asked for.
void parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success))
            throw usage_failure(app, e);
        app.exit(e);
    }
}

int run(CLI::App& app, Globals& globals, int argc, char** argv) {
    try {
        parse(app, argc, argv);
        flush_output();
        return static_cast<int>(globals.outcome);
    } catch (const Failure& failure) {
        return report(failure, globals);
    } catch (const std::exception& e) {
        return report({ExitCode::found, std::string("unexpected: ") + e.what()}, globals);
    }
}

}  // namespace
}  // namespace easctl

int main(int argc, char** argv) {
    easctl::Globals globals;
    CLI::App app("The administrator's tool of the energy-aware scheduling library.", "easctl");
    app.require_subcommand(1);
    app.formatter(easctl::plain_formatter());
    app.footer(
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
        "\"easctl COMMAND --help\" shows the options of a command, with examples.");
    easctl::add_global_options(app, globals);
    easctl::add_all_commands(app, globals);
    easctl::add_completion_command(app);
    return easctl::run(app, globals, argc, argv);
}
