#include "adapters/job/ChildCall.h"

#include <cxxabi.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <vector>

namespace eas::job {
namespace {

using Clock = std::chrono::steady_clock;

// How long a child may take to be gone: one that ends by itself does, however busy the node.
constexpr std::chrono::milliseconds patience_with_child{10000};
constexpr std::chrono::milliseconds patience_with_killed{500};

struct Channel {
    Descriptor mine, its;
};

Channel open_channel() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error(std::string("no channel to a child: ") + std::strerror(errno));
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::vector<int> open_descriptors() {
    std::vector<int> found;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir("/proc/self/fd"), ::closedir);
    while (const dirent* entry = entries != nullptr ? ::readdir(entries.get()) : nullptr)
        if (const int fd = std::atoi(entry->d_name); fd != ::dirfd(entries.get()))
            found.push_back(fd);
    return found;
}

/// In a fresh child: default signals, no dump of the database's password when it crashes, and of
/// the parent's descriptors only `channel`. The others lead nowhere but stay taken: Slurm's log
/// writes to the numbers that it knows, and must not find a file of the database there.
void settle(int channel) {
    struct sigaction plain {};
    plain.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
        ::sigaction(number, &plain, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    constexpr rlimit no_core{0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
    ::prctl(PR_SET_DUMPABLE, 0);  // a program that takes the dumps is not bound by the limit
    sigset_t none;
    sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    const Descriptor nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int standard : {0, 1, 2})
        ::dup2(nowhere.get(), standard);
    for (const int fd : open_descriptors())
        if (fd > 2 && fd != channel && fd != nowhere.get())
            ::dup3(nowhere.get(), fd, O_CLOEXEC);
}

Outcome guarded(const std::function<Outcome()>& work) {
    try {
        return work();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        return {false, error.what()};
    } catch (...) {
        return {false, "failed for an unknown reason"};
    }
}

/// Milliseconds until `deadline`, for poll.
int left(Clock::time_point deadline) {
    const auto rest =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return rest < 0 ? 0 : static_cast<int>(rest);
}

/// True when there is something to read, or the other side has gone, before the deadline.
bool wait_for(int channel, Clock::time_point deadline) {
    pollfd ready{channel, POLLIN, 0};
    int got = -1;
    do {
        got = ::poll(&ready, 1, left(deadline));
    } while (got < 0 && errno == EINTR);
    return got > 0;
}

/// Reads until the child closes its end; false at the deadline.
bool read_all(int channel, Clock::time_point deadline, std::string& text) {
    std::array<char, 512> part;
    while (wait_for(channel, deadline)) {
        const ssize_t got = ::recv(channel, part.data(), part.size(), 0);
        if (got == 0)
            return true;
        if (got > 0)
            text.append(part.data(), static_cast<size_t>(got));
        else if (errno != EINTR)
            return true;
    }
    return false;
}

/// Waits for a child that has ended or was killed. One that hangs in the kernel is left to
/// process 1.
void reap(pid_t child, std::chrono::milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    while (::waitpid(child, nullptr, WNOHANG) == 0 && Clock::now() < deadline)
        ::poll(nullptr, 0, 1);
}

[[noreturn]] void answer_and_end(int channel, const std::function<Outcome()>& work) {
    settle(channel);
    const Outcome outcome = guarded(work);
    const std::string message = (outcome.good ? "+" : "-") + outcome.text;
    ::send(channel, message.data(), message.size(), MSG_NOSIGNAL);
    ::_exit(0);
}

}  // namespace

Outcome call_in_child(int seconds, const std::function<Outcome()>& work) {
    Channel channel = open_channel();
    const pid_t child = ::fork();
    if (child < 0)
        return {false, std::string("no child process: ") + std::strerror(errno)};
    if (child == 0)
        answer_and_end(channel.its.get(), work);
    channel.its.reset();
    std::string text;
    const bool in_time =
        read_all(channel.mine.get(), Clock::now() + std::chrono::seconds(seconds), text);
    if (!in_time)
        ::kill(child, SIGKILL);
    reap(child, in_time ? patience_with_child : patience_with_killed);
    if (!text.empty())
        return {text.front() == '+', text.substr(1)};
    return {false, in_time ? "the process that calls the library crashed"
                           : "no answer within " + std::to_string(seconds) + " s"};
}

Companion::Companion(const std::function<void(int channel)>& work) {
    Channel channel = open_channel();
    const pid_t between = ::fork();
    if (between < 0)
        throw std::runtime_error(std::string("no child process: ") + std::strerror(errno));
    if (between == 0) {
        if (::fork() != 0)
            ::_exit(0);
        ::setsid();
        settle(channel.its.get());
        guarded([&] {
            work(channel.its.get());
            return Outcome{};
        });
        ::_exit(0);
    }
    reap(between, patience_with_child);
    channel_ = std::move(channel.mine);
}

std::string Companion::answer(int seconds) const {
    std::array<char, 512> text;
    if (!wait_for(channel_.get(), Clock::now() + std::chrono::seconds(seconds)))
        return {};
    const ssize_t got = ::recv(channel_.get(), text.data(), text.size(), 0);
    return got > 0 ? std::string(text.data(), static_cast<size_t>(got)) : std::string{};
}

}  // namespace eas::job
