#include "tests/tools/RunTool.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "base/UniqueFd.h"
#include "gtest/gtest.h"

namespace eas::test {
namespace {

constexpr unsigned limit_s = 60;

std::string text_of(const UniqueFd& file) {
    std::string text(static_cast<std::size_t>(::lseek(file.get(), 0, SEEK_END)), '\0');
    const ssize_t length = ::pread(file.get(), text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

/// The end to read of a pipe that holds `text`.
UniqueFd pipe_with(const std::string& text) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd out(ends[1]);
    EXPECT_EQ(::write(out.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return UniqueFd(ends[0]);
}

[[noreturn]] void become_easctl(std::vector<char*>& argv, int in, int out, int err) {
    ::dup2(in, STDIN_FILENO);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    // What the drivers leak is not the tool's, and they are unmapped when a checker looks.
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    ::setsid();        // no terminal: a question about a password cannot wait for anybody
    ::alarm(limit_s);  // survives exec
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

}  // namespace

ToolRun run_easctl(const std::vector<std::string>& arguments, const std::string& input) {
    std::vector<std::string> words{EAS_EASCTL};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    const UniqueFd in = pipe_with(input);
    const UniqueFd out(::memfd_create("out", MFD_CLOEXEC));
    const UniqueFd err(::memfd_create("err", MFD_CLOEXEC));
    const pid_t child = ::fork();
    if (child == 0)
        become_easctl(argv, in.get(), out.get(), err.get());
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_FALSE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << "easctl did not end";
    ToolRun run;
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = text_of(out);
    run.err = text_of(err);
    return run;
}

}  // namespace eas::test
