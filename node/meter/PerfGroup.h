// A group of perf events that count together: opened on a CPU, read by one system call, scaled up
// for the time in which their hardware counted for somebody else.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace eas::node {

/// One event as perf_event_open(2) takes it.
struct EventCode {
    std::uint32_t type;
    std::uint64_t config;
};

/// No group here is larger.
constexpr std::size_t most_events = 4;

/// Whose events, and where.
struct EventTarget {
    pid_t process = -1;  ///< -1: everybody
    int cpu = -1;        ///< -1: wherever the process runs
    bool inherit = false;
    bool user_only = false;
};

/// Opens one event; `leader` -1 for none, `grouped` for one whose reading is that of its group, and
/// which waits for PERF_EVENT_IOC_ENABLE if it leads. Not open, with errno, after a failure.
[[nodiscard]] UniqueFd open_event(EventCode code, const EventTarget& target, int leader,
                                  bool grouped) noexcept;

/// Why an event could not be opened, in words that name what is missing.
[[nodiscard]] std::string why_no_event(const std::string& event, int error);

/// What a descriptor gave: the times (ns) that the events were wanted and that they counted.
struct EventReading {
    std::uint64_t enabled = 0;
    std::uint64_t running = 0;
    std::array<std::uint64_t, most_events> values{};
};

/// How a group's reading went.
enum class Progress {
    counted,
    scaled,     ///< counted part of the time
    no_data,    ///< did not count since the last good reading; what it counts next stands for it
    stopped,    ///< time itself stands still for it: its CPU is gone
    unreadable  ///< errno says why; or the numbers are none that a group can give
};

/// Adds the difference of two readings to `totals`, scaled to the whole time. The earlier reading
/// becomes the later one where it was taken into account.
Progress add_difference(EventReading& before, const EventReading& now, std::size_t events,
                        std::array<std::uint64_t, most_events>& totals) noexcept;

class PerfGroup {
  public:
    PerfGroup() = default;

    /// Opens `codes` on a CPU for everybody; they begin together, at 0. 0, or an errno; the group
    /// is then empty.
    int open(const EventCode* codes, std::size_t count, int cpu);

    /// Reads once; adds to the totals.
    Progress update() noexcept;

    /// Reads the events of a CPU that is gone, one by one: the kernel took the group apart.
    void update_singly() noexcept;

    [[nodiscard]] const std::array<std::uint64_t, most_events>& totals() const noexcept {
        return totals_;
    }
    [[nodiscard]] int descriptor() const noexcept { return fds_[0].get(); }

  private:
    bool read_group(EventReading& reading) noexcept;

    std::array<UniqueFd, most_events> fds_;
    std::size_t count_ = 0;
    EventReading last_;
    std::array<std::uint64_t, most_events> totals_{};
};

}  // namespace eas::node
