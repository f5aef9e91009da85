// The node's processors as /proc/cpuinfo lists them, and binding a thread to one of them.
//
// One process-wide record without a lock: one thread initialises and samples.
#pragma once

#include <sched.h>

#include <cstdint>
#include <cstdio>

/// Array limits of the topology record; a node beyond them is rejected.
constexpr int max_sockets = 4;
constexpr int max_cpus = 128;
constexpr int max_core_ids = 64;

/// What is known of the node's processors. All 0 until discover_topology ran.
struct cpuinfo_t {
    std::int32_t family;                   ///< "cpu family" of processor 0
    std::int32_t model;                    ///< "model" of processor 0; 30 is stored as 26
    std::int32_t numSockets;               ///< distinct "physical id" values
    std::int32_t numCores;                 ///< physical cores of all sockets
    std::int32_t numThreads;               ///< "processor" lines
    std::int32_t threads_per_core;         ///< numThreads / numCores
    std::int32_t cpuId[max_sockets];       ///< by physical socket id: its first CPU; -1 none
    std::int32_t socketId[max_cpus];       ///< by CPU: its physical socket id; -1 unknown
    std::int32_t socketIdc[max_core_ids];  ///< reserved
    std::int32_t SId[max_sockets];         ///< socket ids in order of appearance; -1 unused
    std::int32_t ncores_on_that_socket[max_sockets];  ///< reserved
    std::int32_t tnum[max_cpus][max_sockets];         ///< reserved
    std::uint64_t nominal_frequency;                  ///< nominal clock, Hz
};

extern cpuinfo_t cinfo;

/// Fills `cinfo` from /proc/cpuinfo and the platform-information register of CPU 0.
/// 0; -1 when the file cannot be opened (`cinfo` is unchanged); -2 when the processor is not one
/// of the known ones (`cinfo` is partly filled) or exceeds the array limits, or has ids outside
/// of any processor (`cinfo` is blank, so that the platform counts as unsupported).
int discover_topology();

/// 1 if sampling is possible on this node, else 0: the register device of CPU 0 opens for reading
/// and writing, and the processor that discover_topology finds is one of the supported models.
int supported_platform();

/// Restricts the calling thread to a CPU; returns the affinity that it had before.
cpu_set_t bind_this_thread(int cpu_id);

/// Gives the calling thread the affinity `oset`; returns what sched_setaffinity(2) returned.
int unbind_this_thread(cpu_set_t oset);

namespace eas {

struct TopologyReading {
    int result;  ///< 0 or -2 as of discover_topology
    cpuinfo_t processors;
};

/// The reading behind discover_topology, less the register. `cpuinfo` stays open; `cinfo` is left
/// as it is, so that a node can be looked at while it is sampled.
[[nodiscard]] TopologyReading read_topology(std::FILE* cpuinfo);

/// Nominal clock in Hz, from bits 15:8 of the platform-information register of CPU 0 and the bus
/// clock of the model; 0 when the register cannot be read.
[[nodiscard]] std::uint64_t nominal_clock(const cpuinfo_t& processors);

/// Whether counters of this family and model can be programmed.
[[nodiscard]] bool can_be_sampled(const cpuinfo_t& processors) noexcept;

/// Keeps the calling thread on a CPU for the length of a block.
class ThreadBinding {
  public:
    explicit ThreadBinding(int cpu_id) : old_set_(bind_this_thread(cpu_id)) {}
    ~ThreadBinding() { unbind(); }
    ThreadBinding(const ThreadBinding&) = delete;
    ThreadBinding& operator=(const ThreadBinding&) = delete;

    /// Gives the affinity back early; returns what unbind_this_thread returned, 0 if it was given
    /// back before.
    int unbind() {
        if (!bound_)
            return 0;
        bound_ = false;
        return unbind_this_thread(old_set_);
    }

  private:
    cpu_set_t old_set_;
    bool bound_ = true;
};

}  // namespace eas
