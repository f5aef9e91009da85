#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/Numbers.h"
#include "node/files/PseudoFile.h"
#include "node/meter/CoreEvents.h"
#include "node/meter/Progress.h"

namespace eas::node {
namespace {

// A process that starts threads faster than they can be listed is given up after so many attempts.
constexpr int most_attempts = 20;

std::vector<int> threads_of(pid_t process, int& error) {
    std::vector<int> threads;
    for (const std::string& name : names_in("/proc/" + decimal(process) + "/task", &error))
        if (const auto id = parse_number(name); id && *id > 0)
            threads.push_back(static_cast<int>(*id));
    std::sort(threads.begin(), threads.end());
    return threads;
}

}  // namespace

int TaskEvents::open_counter(int thread, std::size_t event) {
    TaskCounter counter{event, {}, {}};
    const std::size_t kinds = std::max<std::size_t>(pmus_.size(), 1);
    for (std::size_t kind = 0; kind < kinds; ++kind) {
        EventCode code = events_.codes[event];
        if (kind < pmus_.size())
            code = pmus_[kind].of_this_kind(code);
        EventTarget target;
        target.process = thread;
        target.inherit = true;
        target.user_only = user_only_;
        UniqueFd fd = open_event(code, target, -1, false);
        if (!fd.is_open())
            return errno;
        counter.fds.push_back(std::move(fd));
    }
    if (!read_counter(counter, counter.last))
        return errno;
    counters_.push_back(std::move(counter));
    return 0;
}

int TaskEvents::open_threads(const std::vector<int>& threads) {
    counters_.clear();
    for (const int thread : threads) {
        for (std::size_t event = 0; event < events_.count; ++event) {
            const int error = open_counter(thread, event);
            if (error == ESRCH)
                break;  // it has ended
            if (error != 0)
                return error;
        }
    }
    return counters_.empty() ? ESRCH : 0;
}

bool TaskEvents::open(const EventSet& events, pid_t process, std::string& reason) {
    events_ = events;
    pmus_ = core_pmus();
    int error = 0;
    // A thread that is started meanwhile is counted with the one that started it, or not at all,
    // depending on who was first: only a list that stays the same is sure.
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        const std::vector<int> threads = threads_of(process, error);
        if (error == 0)
            error = open_threads(threads);
        if ((error == EACCES || error == EPERM) && !user_only_) {
            user_only_ = true;
            error = open_threads(threads);
        }
        if (error != 0)
            break;
        if (threads_of(process, error) == threads && error == 0)
            return true;
        error = EAGAIN;
    }
    counters_.clear();
    reason = why_no_event(events_.name, error);
    return false;
}

/// The counters of one event add up, and so do the times in which they ran; they are wanted all
/// the time, each.
bool TaskEvents::read_counter(const TaskCounter& counter, EventReading& sum) {
    sum = {};
    for (const UniqueFd& fd : counter.fds) {
        std::array<std::uint64_t, 3> words;  // value, time enabled, time running
        const ssize_t got = ::read(fd.get(), words.data(), sizeof words);
        if (got != static_cast<ssize_t>(sizeof words)) {
            if (got >= 0)
                errno = EIO;
            return false;
        }
        sum.values[0] += words[0];
        sum.enabled = std::max(sum.enabled, words[1]);
        sum.running += words[2];
    }
    return true;
}

bool TaskEvents::read(EventTotals& totals, Result& result) {
    for (TaskCounter& counter : counters_) {
        EventReading now;
        std::array<std::uint64_t, most_events> counted{};
        Progress progress = Progress::unreadable;
        if (read_counter(counter, now))
            progress = add_difference(counter.last, now, 1, counted);
        totals_[counter.event] += counted[0];
        const int error = errno;
        goes_on(
            progress, [this] { return std::string(events_.name); }, scaled_, result);
        if (progress == Progress::unreadable)
            result.end(why_no_event(events_.name, error));
    }
    totals.values = totals_;
    totals.scaled = scaled_;
    return result.reason.empty();
}

}  // namespace eas::node
