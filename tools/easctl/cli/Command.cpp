#include "tools/easctl/cli/Command.h"

#include <array>
#include <cstdio>
#include <sstream>

#include "base/UniqueFile.h"

namespace easctl {
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
