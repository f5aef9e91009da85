#include "tools/easctl/cli/Command.h"

#include <array>
#include <cstdio>
#include <sstream>

#include <CLI/CLI.hpp>

#include "base/UniqueFile.h"

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

}  // namespace

const char* name_of(ExitCode code) noexcept {
    switch (code) {
        case ExitCode::ok:
            return "ok";
        case ExitCode::found:
            return "found";
        case ExitCode::usage:
            return "usage";
        case ExitCode::input:
            return "input";
        case ExitCode::database:
            return "database";
        case ExitCode::refused:
            return "refused";
        case ExitCode::node:
            return "node";
        case ExitCode::interrupted:
            return "interrupted";
    }
    return "unknown";
}

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

void complain(const Failure& failure) {
    std::istringstream lines(failure.message);
    for (std::string line; std::getline(lines, line);)
        std::fprintf(stderr, "easctl: %s\n", printable(line).c_str());
    if (!failure.hint.empty())
        std::fprintf(stderr, "  what to do: %s\n", printable(failure.hint).c_str());
}

void require_yes(const std::string& question) {
    const eas::UniqueFile terminal(std::fopen("/dev/tty", "r+e"));
    if (!terminal)
        throw Failure(ExitCode::usage, question + " there is no terminal to ask on", "give --yes");
    std::fprintf(terminal.get(), "%s [y/N] ", printable(question).c_str());
    std::fflush(terminal.get());
    std::array<char, 256> line{};
    if (std::fgets(line.data(), line.size(), terminal.get()) == nullptr)
        line[0] = '\0';
    const std::string answer(line.data());
    for (const char* yes : {"y\n", "Y\n", "yes\n", "Yes\n", "YES\n"}) {
        if (answer == yes)
            return;
    }
    throw Failure(ExitCode::found, question + " no: nothing was removed", "--yes asks nothing");
}

void remark(const Globals& globals, const std::string& text) {
    if (!globals.quiet)
        std::fprintf(stderr, "easctl: %s\n", text.c_str());
}

}  // namespace easctl
