// The same few events on every CPU of the node, or for every thread of a process, summed up. Knows
// processors with several kinds of cores.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "node/files/KeptFile.h"
#include "node/meter/PerfGroup.h"
#include "node/meter/Source.h"

namespace eas::node {

/// The events of one reading of all; at most most_events.
struct EventSet {
    const EventCode* codes;
    std::size_t count;
    const char* name;  ///< for reasons
};

/// The PMU of one kind of core, and its CPUs.
struct CorePmu {
    std::uint32_t type;
    std::vector<int> cpus;

    /// An event of this kind of core: the kernel takes the type of its PMU in the upper half.
    [[nodiscard]] EventCode of_this_kind(EventCode code) const {
        code.config |= std::uint64_t{type} << 32;
        return code;
    }
};

/// Those of a processor with several kinds of cores; none where all are alike.
[[nodiscard]] std::vector<CorePmu> core_pmus();

/// What all CPUs, or threads, gave together.
struct EventTotals {
    std::array<std::uint64_t, most_events> values{};
    bool scaled = false;  ///< some of it, at some time
};

/// A group of events on each online CPU. CPUs that go offline keep their counts; those that come
/// are counted from the first reading after that.
class CpuEvents {
  public:
    /// False with a reason: nothing is then open.
    bool open(const EventSet& events, std::string& reason);

    /// The sums since opening. False with a reason in `result`.
    bool read(EventTotals& totals, Result& result);

  private:
    struct CpuGroup {
        int cpu;
        PerfGroup group;
        bool gone = false;
    };

    int add_cpu(int cpu);
    bool has_gone(int cpu, int error);
    bool follow_online_cpus(Result& result);
    void read_groups(Result& result);
    void retire(CpuGroup& gone);

    EventSet events_{};
    std::vector<CorePmu> pmus_;
    std::vector<CpuGroup> groups_;
    KeptFile online_file_{"/sys/devices/system/cpu/online"};
    std::string online_;  // as it was when the groups were last matched with it
    std::array<std::uint64_t, most_events> retired_{};
    bool scaled_ = false;
};

/// The events of a process: of its threads now, and of all that these start.
class TaskEvents {
  public:
    /// False with a reason: nothing is then open. Without the right to count the kernel's work for
    /// the process, what the process does itself is counted: user_only() is then true.
    bool open(const EventSet& events, pid_t process, std::string& reason);

    bool read(EventTotals& totals, Result& result);

    [[nodiscard]] bool user_only() const noexcept { return user_only_; }

  private:
    /// One event of one thread: a counter for each kind of core, of which one runs at a time.
    struct TaskCounter {
        std::size_t event;
        std::vector<UniqueFd> fds;
        EventReading last;
    };

    int open_threads(const std::vector<int>& threads);
    int open_counter(int thread, std::size_t event);
    static bool read_counter(const TaskCounter& counter, EventReading& sum);

    EventSet events_{};
    std::vector<CorePmu> pmus_;
    std::vector<TaskCounter> counters_;
    std::array<std::uint64_t, most_events> totals_{};
    bool scaled_ = false;
    bool user_only_ = false;
};

}  // namespace eas::node
