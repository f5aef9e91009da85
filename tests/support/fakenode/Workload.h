// The simulated work: at each frequency a power and a pace, so that a calibration finds again the
// coefficients from which the rows were made. Totals since the node was started.
#pragma once

#include <map>
#include <vector>

#include "tests/support/fakenode/Cpufreq.h"

namespace eas::fake {

struct CpuWork {
    double cycles, reference_cycles, instructions, lines, busy_seconds;
};

struct SocketWork {
    double joules, lines;
};

class Workload {
  public:
    Workload(const NodeShape& shape, NodeState& state, const NodeCpus& cpus,
             const Cpufreq& cpufreq);

    [[nodiscard]] bool active() const { return !shape_.workload.empty(); }
    /// Brings the totals, and the memory counter of models 26 to 44 made from them, up to now.
    void advance();
    [[nodiscard]] double seconds() const { return seconds_; }
    [[nodiscard]] const CpuWork& of_cpu(int cpu) const { return by_cpu_[static_cast<size_t>(cpu)]; }
    [[nodiscard]] SocketWork of_socket(int id) const;  // none: 0
    [[nodiscard]] double busy_seconds() const;         // of all CPUs together
    [[nodiscard]] SocketWork all_sockets() const;
    [[nodiscard]] double nominal_hz() const { return cpufreq_.nominal_of(0) * 1e3; }
    [[nodiscard]] double watts() const { return watts_; }  // of the node, now

  private:
    [[nodiscard]] WorkloadRow row_at(int khz) const;

    const NodeShape& shape_;
    NodeState& state_;
    const NodeCpus& cpus_;
    const Cpufreq& cpufreq_;
    double last_ = 0;
    double seconds_ = 0;
    double watts_ = 0;
    std::vector<WorkloadRow> rows_;  // by frequency, ascending
    std::vector<CpuWork> by_cpu_;
    std::map<int, SocketWork> by_socket_;
};

}  // namespace eas::fake
