// Core performance events through perf_event_open(2), for one process and its children or for the
// whole node. Process-wide descriptors without a lock: one thread samples.
#pragma once

#include <linux/perf_event.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/node/EasMisc.h"
#include "common/node/FdSlot.h"

/// Events that are counted.
constexpr int num_core_counters = 15;
/// CPUs that the node-wide mode has room for.
constexpr int max_counted_cpus = 64;

/// What a read of a counter descriptor gives.
struct perf_counts_values {
    std::uint64_t value;
    std::uint64_t time_enabled;  ///< ns
    std::uint64_t time_running;  ///< ns on a hardware counter
};

/// The descriptors; -1 where none is open.
struct CoreCounterState {
    using Row = std::array<eas::FdSlot, num_core_counters>;  // by event
    Row fd;                                                  ///< per process
    std::array<Row, max_counted_cpus> fds;                   ///< for the whole node, by CPU
    int system_wide = 0;  ///< 1 once the whole node was chosen; never 0 again
};

extern CoreCounterState core_counters;

/// The raw system call, without flags.
int perf_event_open(perf_event_attr* event, pid_t pid, int cpu, int leader_fd);

/// Opens all events for `pid`, or for the whole node if it is -1; a descriptor that is replaced
/// is closed. 0, or -1 at the first that fails (those before it stay open) or when the node has
/// more cores than max_counted_cpus.
int init_core_counters(pid_t pid);

/// Reads one event, scaled up by the time in which it was not on a hardware counter. One that
/// never ran, or whose descriptor is at end of file, is 0. Returns 0, or a negative errno with
/// `value` unchanged.
int read_core_counter(int fd, unsigned long long* value);

/// Reads all events into `usage`, and the time. 0, or -1 with `usage` unchanged when one event
/// cannot be read.
int read_core_counters(hwrusage* usage);

/// Reads until `n` bytes arrived; returns n, or the first result of read(2) that was 0 or negative.
int readn(int fd, void* buf, std::size_t n);

/// Wall-clock time, ns since 1970, to the microsecond.
std::uint64_t rdclock();

namespace eas {

/// What an event of the table is asked of the kernel as.
[[nodiscard]] perf_event_attr core_event(std::size_t counter) noexcept;

/// Closes the per-process descriptors; those of the whole node stay open.
void close_core_counters();

/// `counts` scaled to the whole time enabled; saturates at the largest value.
[[nodiscard]] std::uint64_t scaled_count(const perf_counts_values& counts) noexcept;

}  // namespace eas
