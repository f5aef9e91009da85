#include "tools/easctl/cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <utility>
#include <vector>

#include "tools/easctl/cli/CommandTree.h"
#include "tools/easctl/cli/Errors.h"

namespace easctl {
namespace {

std::string footer_of(const std::string& examples) {
    std::string text;
    if (!examples.empty()) {
        text += "Examples:\n";
        std::istringstream lines(examples);
        for (std::string line; std::getline(lines, line);)
            text += "  " + line + '\n';
        text += '\n';
    }
    return text +
           "Of every command: --json, --quiet, --color auto|always|never.\n"
           "Exit codes: 0 ok, 1 something found, 2 usage, 3 input file, 4 database,\n"
           "            5 refused by the library, 6 node, 130 interrupted.";
}

/// The names of the commands below one, without what is hidden.
std::string commands_below(const CLI::App& command) {
    std::string names;
    for (const CLI::App* below : command.get_subcommands([](const CLI::App*) { return true; })) {
        if (!below->get_name().empty() && !below->get_group().empty())
            names += (names.empty() ? "" : ", ") + below->get_name();
    }
    return names;
}

/// What the command line lacks. A word that is no command is named, with the commands there are.
Failure usage_failure(const CLI::App& root, const CLI::ParseError& error) {
    const CLI::App* command = &root;
    std::string path = root.get_name();
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        path += ' ' + command->get_name();
    }
    const std::string names = commands_below(*command);
    if (names.empty() || dynamic_cast<const CLI::RequiredError*>(&error) == nullptr)
        return {ExitCode::usage, error.what(), path + " --help"};
    const std::vector<std::string> words = root.remaining(true);
    if (words.empty())
        return {ExitCode::usage, path + ": which command?", "one of " + names};
    const char* const kind = words.front().front() == '-' ? "option" : "command";
    return {ExitCode::usage, '"' + words.front() + "\" is no " + kind + " of " + path,
            "its commands: " + names};
}

}  // namespace

CLI::App& add_command(CLI::App& parent, const std::string& name, const std::string& description,
                      const std::string& examples) {
    CLI::App& command = *parent.add_subcommand(name, description);
    command.fallthrough();  // the options of the whole tool may stand behind the command, too
    command.footer(footer_of(examples));
    return command;
}

CLI::App& add_group(CLI::App& parent, const std::string& name, const std::string& description) {
    CLI::App& group = *parent.add_subcommand(name, description);
    group.fallthrough();
    group.require_subcommand(1);
    return group;
}

void set_action(CLI::App& command, std::function<void()> action) {
    command.callback(std::move(action));
}

CommandLine::CommandLine(const std::string& name, const std::string& description,
                         const std::string& version, const std::string& footer)
    : root_(std::make_unique<CLI::App>(description, name)) {
    root_->require_subcommand(1);
    root_->formatter(plain_formatter());
    root_->footer(footer);
    root_->set_version_flag("--version", version);
}

CommandLine::~CommandLine() = default;

void CommandLine::run(int argc, char** argv) {
    try {
        root_->parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success))
            throw usage_failure(*root_, e);
        root_->exit(e);
    }
}

}  // namespace easctl
