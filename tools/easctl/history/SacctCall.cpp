#include "tools/easctl/history/SacctCall.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/history/SacctTable.h"

namespace easctl {
namespace {

constexpr unsigned limit_s = 600;
using Words = std::array<std::string, 7>;
constexpr int not_started = 127;  // what a shell answers, too

/// Becomes sacct; the alarm outlives the change of program.
[[noreturn]] void become_sacct(Words& words, int output) {
    std::array<char*, std::tuple_size_v<Words> + 1> argv{};
    for (std::size_t i = 0; i < words.size(); ++i)
        argv[i] = words[i].data();
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    // Seconds since 1970 say the same in every time zone, and twice a year at night.
    if (input >= 0 && ::dup2(input, STDIN_FILENO) == STDIN_FILENO &&
        ::dup2(output, STDOUT_FILENO) == STDOUT_FILENO &&
        ::setenv("SLURM_TIME_FORMAT", "%s", 1) == 0) {
        ::alarm(limit_s);
        ::execvp(argv[0], argv.data());
    }
    ::_exit(not_started);
}

std::string end_of(int status) {
    if (WIFSIGNALED(status))
        return WTERMSIG(status) == SIGALRM
                   ? "did not end within " + std::to_string(limit_s) + " s"
                   : "was ended by signal " + std::to_string(WTERMSIG(status));
    return WEXITSTATUS(status) == not_started
               ? "cannot be run"
               : "failed with exit code " + std::to_string(WEXITSTATUS(status));
}

std::string time_word(const char* option, double seconds) {
    // Every Slurm that has AdminComment reads this form.
    const auto whole = static_cast<std::time_t>(seconds);
    std::tm local{};
    std::array<char, 32> text{};
    ::localtime_r(&whole, &local);
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &local);
    return std::string(option) + text.data();
}

}  // namespace

SacctCall::SacctCall(double from, double to) {
    Words words{"sacct",
                "--allusers",
                "--allocations",
                "--parsable2",
                std::string("--format=") + sacct_columns,
                time_word("--starttime=", from),
                time_word("--endtime=", to)};
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw Failure(ExitCode::input, std::string("no pipe to sacct: ") + std::strerror(errno));
    output_.reset(ends[0]);
    const eas::UniqueFd writer(ends[1]);
    child_ = ::fork();
    if (child_ == 0)
        become_sacct(words, writer.get());
    if (child_ < 0)
        throw Failure(ExitCode::input,
                      std::string("no process for sacct: ") + std::strerror(errno));
}

SacctCall::~SacctCall() {
    if (child_ <= 0)
        return;
    ::kill(child_, SIGKILL);
    while (::waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void SacctCall::finish() {
    int status = 0;
    while (::waitpid(child_, &status, 0) < 0 && errno == EINTR) {
    }
    child_ = -1;
    if (status == 0)
        return;
    throw Failure(
        ExitCode::input, "sacct " + end_of(status),
        "run it by hand: sacct --allusers --parsable2 --format=" + std::string(sacct_columns));
}

}  // namespace easctl
