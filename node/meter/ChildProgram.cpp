#include "node/meter/ChildProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include "base/Numbers.h"
#include "base/UniqueFd.h"
#include "node/files/KeptFile.h"

namespace eas::node {
namespace {

constexpr std::size_t most_output = 65536;
// The end of a child that closed its output is looked for this often.
constexpr int poll_milliseconds = 5;
// A killed process that is not gone by then is stuck in the kernel.
constexpr Nanoseconds death_limit = 100 * millisecond;

/// What a child is started with; given back whole.
class SpawnPlan {
  public:
    SpawnPlan() {
        ::posix_spawnattr_init(&attributes_);
        ::posix_spawn_file_actions_init(&files_);
    }
    ~SpawnPlan() {
        ::posix_spawnattr_destroy(&attributes_);
        ::posix_spawn_file_actions_destroy(&files_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    /// 0 or an errno. The child writes to `output_end`.
    int spawn(const std::vector<std::string>& arguments, int output_end, pid_t& pid) {
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));  // execve(2) changes none
        argv.push_back(nullptr);
        std::string path = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
        std::string locale = "LC_ALL=C";
        const std::array<char*, 3> environment = {path.data(), locale.data(), nullptr};
        prepare(output_end);
        return ::posix_spawn(&pid, argv[0], &files_, &attributes_, argv.data(), environment.data());
    }

  private:
    void prepare(int output_end) {
        sigset_t all;
        sigset_t none;
        ::sigfillset(&all);
        ::sigemptyset(&none);
        ::posix_spawnattr_setflags(
            &attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        ::posix_spawnattr_setpgroup(&attributes_, 0);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
        ::posix_spawn_file_actions_adddup2(&files_, output_end, STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_addopen(&files_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        ::posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
    }

    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t files_;
};

std::string how_it_ended(int status) {
    if (WIFSIGNALED(status))
        return "was killed by signal " + decimal(WTERMSIG(status));
    return "ended with status " + decimal(WEXITSTATUS(status));
}

}  // namespace

/// Waits for the end of the child. True when it is gone; `status` stays where somebody else took
/// it.
bool ChildProgram::reap(bool until_limit, int* status) {
    if (pid_ < 0)
        return true;
    const Nanoseconds until = until_limit ? deadline_ : monotonic_now() + death_limit;
    for (;;) {
        int how = -1;
        const pid_t got = ::waitpid(pid_, &how, WNOHANG);
        if (got == pid_ || (got < 0 && errno == ECHILD)) {
            pid_ = -1;
            if (status != nullptr && got > 0)
                *status = how;
            return true;
        }
        if (monotonic_now() >= until)
            return false;
        ::poll(nullptr, 0, poll_milliseconds);
    }
}

bool ChildProgram::start(int output_end, std::string& reason) {
    SpawnPlan plan;
    pid_t pid = -1;
    const int error = plan.spawn(arguments_, output_end, pid);
    if (error != 0) {
        reason = why(arguments_.front(), error);
        return false;
    }
    pid_ = pid;
    return true;
}

/// Reads to the end of the output, which comes when the last of the group has closed it.
bool ChildProgram::collect(int pipe, std::string& output, std::string& reason) {
    for (;;) {
        const Nanoseconds now = monotonic_now();
        if (now >= deadline_) {
            reason = arguments_.front() + " did not end in time";
            return false;
        }
        pollfd ready = {pipe, POLLIN, 0};
        const int left = static_cast<int>((deadline_ - now) / millisecond) + 1;
        if (::poll(&ready, 1, left) <= 0)
            continue;
        std::array<char, 4096> part;
        const ssize_t count = ::read(pipe, part.data(), part.size());
        if (count == 0)
            return true;
        if (count < 0 && errno != EINTR && errno != EAGAIN) {
            reason = why(arguments_.front(), errno);
            return false;
        }
        if (count > 0)
            output.append(part.data(), static_cast<std::size_t>(count));
        if (output.size() > most_output) {
            reason = arguments_.front() + " writes without end";
            return false;
        }
    }
}

bool ChildProgram::run(std::string& output, std::string& reason) {
    output.clear();
    if (!reap(false)) {
        reason = arguments_.front() + " of an earlier reading cannot be killed";
        return false;
    }
    deadline_ = monotonic_now() + limit_;
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        reason = why("pipe", errno);
        return false;
    }
    const UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    if (!start(theirs.get(), reason))
        return false;
    theirs.reset();
    const pid_t group = pid_;
    int status = 0;
    bool good = collect(ours.get(), output, reason);
    if (good && !reap(true, &status)) {
        reason = arguments_.front() + " did not end in time";
        good = false;
    } else if (good && status != 0) {
        reason = arguments_.front() + " " + how_it_ended(status);
        good = false;
    }
    ::kill(-group, SIGKILL);
    reap(false);
    return good;
}

}  // namespace eas::node
