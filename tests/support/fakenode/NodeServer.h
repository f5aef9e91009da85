// The side of a fake node that answers: it runs in a process of its own, one thread for the files
// and one for the system calls; `mutex` guards everything here and the shared state's answers.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "tests/support/fakenode/NodeState.h"

struct fuse;

namespace eas::fake {

/// Integrates the simulated work over real time at the frequency CPU 0 runs at.
class Workload {
  public:
    Workload(const NodeShape& shape, NodeState& state) : shape_(shape), state_(state) {}

    [[nodiscard]] bool active() const { return !shape_.workload.empty(); }
    /// Brings the totals, and the memory counter of models 26 to 44 made from them, up to now.
    void advance();
    /// Node-wide total of a generic hardware event: cycles and instructions move, no other does.
    [[nodiscard]] double total(const perf_event_attr& event) const;
    [[nodiscard]] double joules() const { return joules_; }

  private:
    [[nodiscard]] const WorkloadRow& row() const;

    const NodeShape& shape_;
    NodeState& state_;
    double last_ = 0;
    double joules_ = 0;
    double cycles_ = 0;
    double instructions_ = 0;
    double lines_ = 0;
};

struct NodeServer {
    NodeServer(const NodeShape& node, NodeState& shared, std::string folder, bool own_affinity)
        : shape(node),
          state(shared),
          stage(std::move(folder)),
          answers_affinity(own_affinity),
          workload(node, shared) {}

    [[nodiscard]] CpuMask affinity_of(int thread) const;

    const NodeShape& shape;
    NodeState& state;
    const std::string stage;  // where the parts of the node are kept before they are mounted
    const bool answers_affinity;
    Workload workload;
    std::map<int, CpuMask> masks;  // by thread id
    std::mutex mutex;
};

/// Mounts the served files at `mount_point`; null on failure. `serve_files` then runs until the
/// file system goes away. Tree: msr/N/msr, cpufreq/policyN/*, counter/N, meter/energy1_input.
::fuse* mount_files(NodeServer& server, const std::string& mount_point);
void serve_files(::fuse* files);

/// In the process that is to be served: sends perf_event_open, and the affinity calls if asked, to
/// the holder of the returned descriptor. -1 on failure.
int divert_system_calls(bool affinity_too);

/// Answers diverted calls until no process is left that could make one.
void serve_system_calls(NodeServer& server, int listener);

}  // namespace eas::fake
