// The side of a fake node that answers: it runs in a process of its own, one thread for the files
// and one for the system calls; `mutex` guards everything here and the shared state's answers.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "tests/support/fakenode/Cpufreq.h"
#include "tests/support/fakenode/Meters.h"
#include "tests/support/fakenode/PerfEvents.h"

struct fuse;

namespace eas::fake {

struct NodeServer {
    NodeServer(const NodeShape& node, NodeState& shared, std::string folder, bool own_affinity)
        : shape(node),
          state(shared),
          stage(std::move(folder)),
          answers_affinity(own_affinity),
          cpus(planted(node)),
          cpufreq(node, shared, cpus, root),
          workload(node, shared, cpus, cpufreq),
          meters(node, workload, cpus, root),
          events(node, shared, workload, cpus, root) {}

    /// Brings everything that the simulated work moves up to now.
    void advance() {
        seen_.clear();
        workload.advance();
        meters.tick();
        if (std::exchange(seen_changes_, cpus.changes()) != cpus.changes())
            events.follow_cpus();
    }

    /// The same for a reading of `what`. Many readings one after the other take no time on hardware
    /// and long here: until one of them comes again they all show the moment of the first.
    void advance_for(uint64_t what) {
        if (is_reading() && seen_.insert(what).second)
            return;
        advance();
        seen_ = {what};
        moment_ = std::chrono::steady_clock::now();
    }
    [[nodiscard]] bool is_reading() const {
        return !seen_.empty() &&
               std::chrono::steady_clock::now() - moment_ < std::chrono::milliseconds(200);
    }

    [[nodiscard]] CpuMask affinity_of(int thread) const;

    const NodeShape& shape;
    NodeState& state;
    const std::string stage;  // where the parts of the node are kept before they are mounted
    const bool answers_affinity;
    TreeEntry root;  // of the node's files
    NodeCpus cpus;
    Cpufreq cpufreq;
    Workload workload;
    Meters meters;
    PerfEvents events;
    std::map<int, CpuMask> masks;  // by thread id
    std::mutex mutex;

  private:
    TreeEntry& planted(const NodeShape& node) {
        plant(node, root);
        return root;
    }

    int seen_changes_ = 0;
    std::set<uint64_t> seen_;  // since moment_
    std::chrono::steady_clock::time_point moment_;
};

/// Mounts the served files at `mount_point`; null on failure. `serve_files` then runs until the
/// file system goes away. Tree: msr/N/msr, counter/N, and the node's files from their root at
/// node/.
::fuse* mount_files(NodeServer& server, const std::string& mount_point);
void serve_files(::fuse* files);

/// In the process that is to be served: sends perf_event_open, and the affinity calls if asked, to
/// the holder of the returned descriptor. -1 on failure.
int divert_system_calls(bool affinity_too);

/// Answers diverted calls until no process is left that could make one.
void serve_system_calls(NodeServer& server, int listener);

}  // namespace eas::fake
