#include "tests/tools/RunTool.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "base/UniqueFd.h"
#include "gmock/gmock.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchFolder.h"

namespace eas::test {
namespace {

constexpr unsigned limit_s = 60;

/// The end to read of a pipe that holds `text`.
UniqueFd pipe_with(const std::string& text) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd out(ends[1]);
    EXPECT_EQ(::write(out.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return UniqueFd(ends[0]);
}

/// A terminal on which `text` was typed; without any text none.
struct Terminal {
    explicit Terminal(const std::string& text) {
        int ends[2] = {-1, -1};
        if (text.empty())
            return;
        EXPECT_EQ(::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
        keyboard.reset(ends[0]);
        screen.reset(ends[1]);
        EXPECT_EQ(::write(keyboard.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }
    UniqueFd keyboard, screen;
};

[[noreturn]] void become_easctl(std::vector<char*>& argv, int in, const char* out, const char* err,
                                const Terminal& terminal) {
    ::dup2(in, STDIN_FILENO);
    if (std::freopen(out, "w", stdout) == nullptr || std::freopen(err, "w", stderr) == nullptr)
        ::_exit(127);
    // What the drivers leak is not the tool's, and they are unmapped when a checker looks.
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    ::setsid();  // without a terminal a question cannot wait for anybody
    if (terminal.screen.is_open() && ::ioctl(terminal.screen.get(), TIOCSCTTY, 0) != 0)
        ::_exit(127);
    ::alarm(limit_s);  // survives exec
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

}  // namespace

ToolRun run_easctl(const std::vector<std::string>& arguments, const std::string& input,
                   const std::string& typed) {
    std::vector<std::string> words{EAS_EASCTL};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    const UniqueFd in = pipe_with(input);
    const ScratchFile out(""), err("");
    const Terminal terminal(typed);
    const pid_t child = ::fork();
    if (child == 0)
        become_easctl(argv, in.get(), out.path().c_str(), err.path().c_str(), terminal);
    const int code = exit_status(child);
    EXPECT_NE(code, 128 + SIGALRM) << "easctl did not end";
    return {code, out.text(), err.text()};
}

nlohmann::json document_of(std::vector<std::string> arguments, int code) {
    arguments.insert(arguments.begin(), "--json");
    const ToolRun run = run_easctl(arguments);
    EXPECT_EQ(run.code, code) << run.out << run.err;
    return nlohmann::json::parse(run.out);
}

void expect_all(const std::vector<Expectation>& rows) {
    for (const Expectation& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.arguments));
        const ToolRun run = run_easctl(row.arguments);
        EXPECT_EQ(run.code, row.code);
        EXPECT_THAT(run.out + run.err, ::testing::HasSubstr(row.shown));
    }
}

void expect_transcript(const std::string& name) {
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // as above
    const std::string file = " " EAS_TRANSCRIPTS "/" + name + ".transcript";
    EXPECT_EQ(std::system(("python3 " EAS_TRANSCRIPTS "/transcript.py " EAS_EASCTL + file).c_str()),
              0);
}

void let_file_modes_bind() {
    for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH})
        ASSERT_EQ(0, ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0));
}

}  // namespace eas::test
