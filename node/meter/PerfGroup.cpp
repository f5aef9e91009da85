#include "node/meter/PerfGroup.h"

#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "node/files/KeptFile.h"
#include "node/files/PseudoFile.h"
#include "node/meter/DescriptorRoom.h"

namespace eas::node {
namespace {

// A group's reading: how many events, both times, then the values.
constexpr std::size_t words_before = 3;

__extension__ using Wide = unsigned __int128;

/// `part` of the time `running` as the same share of the time `enabled`; saturates.
std::uint64_t scaled_up(std::uint64_t part, std::uint64_t enabled, std::uint64_t running) noexcept {
    const auto whole = static_cast<Wide>(part) * enabled / running;
    return whole > UINT64_MAX ? UINT64_MAX : static_cast<std::uint64_t>(whole);
}

bool goes_forward(const EventReading& before, const EventReading& now,
                  std::size_t events) noexcept {
    bool forward = now.enabled >= before.enabled && now.running >= before.running;
    for (std::size_t i = 0; i < events; ++i)
        forward = forward && now.values[i] >= before.values[i];
    return forward;
}

}  // namespace

UniqueFd open_event(EventCode code, const EventTarget& target, int leader, bool grouped) noexcept {
    perf_event_attr attr{};
    attr.size = sizeof attr;
    attr.type = code.type;
    attr.config = code.config;
    attr.read_format = PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
    if (grouped)
        attr.read_format |= PERF_FORMAT_GROUP;
    attr.disabled = grouped && leader < 0;
    attr.inherit = target.inherit;
    attr.exclude_kernel = target.user_only;
    attr.exclude_hv = target.user_only;
    return DescriptorRoom::moved_up(UniqueFd(static_cast<int>(::syscall(
        SYS_perf_event_open, &attr, target.process, target.cpu, leader, PERF_FLAG_FD_CLOEXEC))));
}

std::string why_no_event(const std::string& event, int error) {
    std::string text = event + ": " + error_name(error);
    switch (error) {
        case EACCES:
        case EPERM: {
            const auto level = read_text("/proc/sys/kernel/perf_event_paranoid");
            return text + "; needs CAP_PERFMON, or perf_event_paranoid 0 or lower, which is " +
                   (level.good() ? level.text : "not known");
        }
        case EMFILE:
            return text + " (RLIMIT_NOFILE)";
        case ENOENT:
        case EOPNOTSUPP:
            return text + "; the processor, or the virtual machine, does not count it";
        default:
            return text;
    }
}

Progress add_difference(EventReading& before, const EventReading& now, std::size_t events,
                        std::array<std::uint64_t, most_events>& totals) noexcept {
    if (!goes_forward(before, now, events)) {
        errno = ERANGE;
        return Progress::unreadable;
    }
    const std::uint64_t enabled = now.enabled - before.enabled;
    const std::uint64_t running = now.running - before.running;
    if (enabled == 0)
        return Progress::stopped;
    if (running == 0)
        return Progress::no_data;
    const bool whole_time = running >= enabled;
    for (std::size_t i = 0; i < events; ++i) {
        const std::uint64_t counted = now.values[i] - before.values[i];
        totals[i] += whole_time ? counted : scaled_up(counted, enabled, running);
    }
    before = now;
    return whole_time ? Progress::counted : Progress::scaled;
}

int PerfGroup::open(const EventCode* codes, std::size_t count, int cpu) {
    EventTarget target;
    target.cpu = cpu;
    count_ = count;
    for (std::size_t i = 0; i < count; ++i) {
        fds_[i] = open_event(codes[i], target, i == 0 ? -1 : fds_[0].get(), true);
        if (!fds_[i].is_open())
            break;
    }
    if (fds_[count - 1].is_open() && ::ioctl(fds_[0].get(), PERF_EVENT_IOC_ENABLE, 0) == 0)
        return 0;
    const int error = errno;
    for (UniqueFd& fd : fds_)
        fd.reset();
    return error;
}

bool PerfGroup::read_group(EventReading& reading) noexcept {
    std::array<std::uint64_t, words_before + most_events> words;
    const std::size_t wanted = (words_before + count_) * sizeof(std::uint64_t);
    const ssize_t got = ::read(fds_[0].get(), words.data(), wanted);
    if (got != static_cast<ssize_t>(wanted) || words[0] != count_) {
        if (got >= 0)
            errno = EIO;
        return false;
    }
    reading.enabled = words[1];
    reading.running = words[2];
    std::copy_n(words.begin() + words_before, count_, reading.values.begin());
    return true;
}

Progress PerfGroup::update() noexcept {
    EventReading now;
    return read_group(now) ? add_difference(last_, now, count_, totals_) : Progress::unreadable;
}

void PerfGroup::update_singly() noexcept {
    for (std::size_t i = 0; i < count_; ++i) {
        std::array<std::uint64_t, words_before + most_events> words{};
        if (::read(fds_[i].get(), words.data(), sizeof words) <= 0)
            continue;
        const std::uint64_t value = words[words_before + (words[0] == count_ ? i : 0)];
        if (value > last_.values[i])
            totals_[i] += value - last_.values[i];
        last_.values[i] = value;
    }
}

}  // namespace eas::node
