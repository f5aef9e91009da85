#include "common/node/CoreCounters.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "base/UniqueFd.h"
#include "common/node/CpuTopology.h"

namespace {

// Rows of the counter table, by what they count.
enum Counter : std::size_t {
    cycles,
    instructions,
    cache_references,
    cache_misses,
    branch_instructions,
    branch_misses,
    bus_cycles,
    l2_transactions,
    l1d_all_ref,
    scalar_single,
    scalar_double,
    packed_single,
    packed_double,
    packed_256_single,
    packed_256_double,
};

struct CoreEvent {
    std::uint32_t type;
    std::uint64_t config;
};

// Raw configurations: event code in bits 7:0, unit mask in 15:8, flags from 16 up (0x53: user,
// kernel, interrupt, enable), as in the performance-event tables of the processor vendor's software
// developer manual. Programmed unchanged on every model, though models differ: F0H and 43H are
// events of models 26 to 47; the unit masks of 10H, and event 11H, are those of models 42, 45
// and 62. Before them the masks of 10H are "packed", "scalar", "single" and "double precision", so
// that a scalar double counts in two rows.
constexpr std::array<CoreEvent, num_core_counters> core_events = {{
    {PERF_TYPE_HARDWARE, PERF_COUNT_HW_CPU_CYCLES},
    {PERF_TYPE_HARDWARE, PERF_COUNT_HW_INSTRUCTIONS},
    {PERF_TYPE_HARDWARE, PERF_COUNT_HW_CACHE_REFERENCES},
    {PERF_TYPE_HARDWARE, PERF_COUNT_HW_CACHE_MISSES},
    {PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_INSTRUCTIONS},
    {PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_MISSES},
    {PERF_TYPE_HARDWARE, PERF_COUNT_HW_BUS_CYCLES},
    {PERF_TYPE_RAW, 0x80F0},    // event 0xF0, umask 0x80: L2_TRANSACTIONS.ANY
    {PERF_TYPE_RAW, 0x0143},    // event 0x43, umask 0x01: L1D_ALL_REF.ANY
    {PERF_TYPE_RAW, 0x532010},  // event 0x10, umask 0x20: SSE scalar, single precision
    {PERF_TYPE_RAW, 0x538010},  // event 0x10, umask 0x80: SSE scalar, double precision
    {PERF_TYPE_RAW, 0x534010},  // event 0x10, umask 0x40: SSE packed, single precision
    {PERF_TYPE_RAW, 0x531010},  // event 0x10, umask 0x10: SSE packed, double precision
    {PERF_TYPE_RAW, 0x530111},  // event 0x11, umask 0x01: 256-bit packed, single precision
    {PERF_TYPE_RAW, 0x530211},  // event 0x11, umask 0x02: 256-bit packed, double precision
}};

using Counts = std::array<unsigned long long, num_core_counters>;

// Opens an event into `slot`, closing what the slot held. The flags of the system call are 0, so
// closing on exec is asked for afterwards.
bool open_into(eas::FdSlot& slot, perf_event_attr& attr, pid_t pid, int cpu) {
    eas::UniqueFd replaced(std::exchange(slot, -1));
    replaced.reset();
    slot = perf_event_open(&attr, pid, cpu, -1);
    if (slot == -1)
        return false;
    fcntl(slot, F_SETFD, FD_CLOEXEC);
    return true;
}

bool cores_fit() {
    return cinfo.numCores <= max_counted_cpus;
}

bool open_node_wide(std::size_t counter, perf_event_attr& attr) {
    attr.disabled = 0;
    attr.enable_on_exec = 0;
    // Physical cores, not threads: CPU numbers above them are the cores' second threads.
    for (int cpu = 0; cpu < cinfo.numCores; ++cpu) {
        eas::FdSlot& slot = core_counters.fds[static_cast<std::size_t>(cpu)][counter];
        if (!open_into(slot, attr, -1, cpu))
            return false;
    }
    return true;
}

// 0, or the first failure.
int read_counter(std::size_t counter, unsigned long long& sum) {
    if (core_counters.system_wide == 0) {
        return read_core_counter(core_counters.fd[counter], &sum);
    }
    for (int cpu = 0; cpu < cinfo.numCores; ++cpu) {
        const int fd = core_counters.fds[static_cast<std::size_t>(cpu)][counter];
        unsigned long long value = 0;
        const int result = read_core_counter(fd, &value);
        if (result < 0)
            return result;
        sum += value;
    }
    return 0;
}

void store_counts(const Counts& counts, hwrusage& usage) {
    usage.cycles = counts[cycles];
    usage.instructions = counts[instructions];
    usage.branch_instructions = counts[branch_instructions];
    usage.branch_misses = counts[branch_misses];
    usage.cache_references = counts[cache_references];
    usage.cache_misses = counts[cache_misses];
    usage.bus_cycles = counts[bus_cycles];
    usage.l2_transactions = counts[l2_transactions];
    usage.l1d_all_ref = counts[l1d_all_ref];
    usage.flops = counts[scalar_single] + counts[scalar_double] + 2 * counts[packed_double] +
                  4 * counts[packed_single] + 4 * counts[packed_256_double] +
                  8 * counts[packed_256_single];
}

}  // namespace

CoreCounterState core_counters;

int perf_event_open(perf_event_attr* event, pid_t pid, int cpu, int leader_fd) {
    return static_cast<int>(syscall(SYS_perf_event_open, event, pid, cpu, leader_fd, 0UL));
}

int init_core_counters(pid_t pid) {
    if (pid == -1) {
        core_counters.system_wide = 1;
        if (!cores_fit())
            return -1;
    }
    for (std::size_t counter = 0; counter < core_events.size(); ++counter) {
        perf_event_attr attr = eas::core_event(counter);
        const bool opened = pid == -1 ? open_node_wide(counter, attr)
                                      : open_into(core_counters.fd[counter], attr, pid, -1);
        if (!opened)
            return -1;
    }
    return 0;
}

int readn(int fd, void* buf, std::size_t n) {
    auto* next = static_cast<char*>(buf);
    std::size_t left = n;
    while (left > 0) {
        const ssize_t count = ::read(fd, next, left);
        if (count <= 0)
            return static_cast<int>(count);
        next += count;
        left -= static_cast<std::size_t>(count);
    }
    return static_cast<int>(n);
}

int read_core_counter(int fd, unsigned long long* value) {
    perf_counts_values counts{};
    const int count = readn(fd, &counts, sizeof counts);
    if (count < 0)
        return -errno;
    // End of file: the kernel could not keep the event on the hardware.
    *value = count == 0 ? 0 : eas::scaled_count(counts);
    return 0;
}

int read_core_counters(hwrusage* usage) {
    if (core_counters.system_wide != 0 && !cores_fit())
        return -1;
    Counts counts{};
    for (std::size_t counter = 0; counter < counts.size(); ++counter) {
        if (read_counter(counter, counts[counter]) < 0)
            return -1;
    }
    store_counts(counts, *usage);
    usage->tstamp = rdclock();
    return 0;
}

std::uint64_t rdclock() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 +
           static_cast<std::uint64_t>(now.tv_usec) * 1000;
}

namespace eas {

perf_event_attr core_event(std::size_t counter) noexcept {
    perf_event_attr attr{};
    attr.type = core_events[counter].type;
    attr.config = core_events[counter].config;
    attr.size = PERF_ATTR_SIZE_VER2;
    attr.read_format = PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
    attr.inherit = 1;
    attr.enable_on_exec = 1;
    return attr;
}

void close_core_counters() {
    for (eas::FdSlot& fd : core_counters.fd) {
        UniqueFd closing(std::exchange(fd, -1));
    }
}

std::uint64_t scaled_count(const perf_counts_values& counts) noexcept {
    if (counts.time_running == 0)
        return 0;
    if (counts.time_running >= counts.time_enabled)
        return counts.value;
    const double scaled = static_cast<double>(counts.value) *
                              static_cast<double>(counts.time_enabled) /
                              static_cast<double>(counts.time_running) +
                          0.5;
    constexpr double two_to_the_64 = 18446744073709551616.0;
    if (scaled >= two_to_the_64)
        return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(scaled);
}

}  // namespace eas
