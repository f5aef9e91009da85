#include "tools/easctl/cli/Signals.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "base/UniqueFd.h"
#include "tools/easctl/cli/Errors.h"

namespace easctl {

double monotonic_seconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

HeldSignals::HeldSignals() {
    ::sigemptyset(&held_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction action {};
        ::sigaction(number, nullptr, &action);
        if (action.sa_handler != SIG_IGN)  // under nohup, a hangup stays ignored
            ::sigaddset(&held_, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &held_, &before_);
}

HeldSignals::~HeldSignals() {
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void HeldSignals::hold(int signal_number) {
    ::sigaddset(&held_, signal_number);
    ::pthread_sigmask(SIG_BLOCK, &held_, nullptr);
}

int HeldSignals::sleep(double seconds) const {
    const double until = monotonic_seconds() + seconds;
    for (;;) {
        const double left = std::max(0.0, until - monotonic_seconds());
        const auto whole = static_cast<time_t>(left);
        const timespec timeout{whole, static_cast<long>((left - static_cast<double>(whole)) * 1e9)};
        const int arrived = ::sigtimedwait(&held_, nullptr, &timeout);
        if (arrived > 0)
            return arrived;
        if (errno == EAGAIN)
            return 0;
    }
}

void HeldSignals::sleep_or_throw(double seconds) const {
    const int arrived = sleep(seconds);
    if (arrived != 0)
        throw Failure(ExitCode::interrupted,
                      std::string("interrupted (") + ::strsignal(arrived) + ")");
}

bool HeldSignals::wait_for_input(int fd) const {
    const eas::UniqueFd arrivals(::signalfd(-1, &held_, SFD_CLOEXEC));
    std::array<pollfd, 2> sources{{{arrivals.get(), POLLIN, 0}, {fd, POLLIN, 0}}};
    while (::poll(sources.data(), sources.size(), -1) < 0 && errno == EINTR) {
    }
    return (sources[0].revents & POLLIN) == 0;
}

}  // namespace easctl
