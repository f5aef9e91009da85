// Readings of the hardware counters of a process and of the node's energy meter, together.
#pragma once

#include <sys/types.h>

#include "common/node/EasMisc.h"
#include "tools/easctl/cli/Signals.h"

namespace easctl {

struct NodeSample {
    double seconds = 0;  // monotonic clock
    hwrusage hardware{};
    unsigned long microjoules = 0;  // 0: no reading
};

/// Counts what `pid` and what it starts from now on do; the counters are given back at the end.
class NodeSampler {
  public:
    explicit NodeSampler(pid_t pid);
    ~NodeSampler();
    NodeSampler(const NodeSampler&) = delete;
    NodeSampler& operator=(const NodeSampler&) = delete;

    [[nodiscard]] bool has_hardware() const { return has_hardware_; }
    [[nodiscard]] bool has_counters() const { return has_counters_; }
    [[nodiscard]] bool has_energy() const { return has_energy_; }

    NodeSample take() const;
    /// Waits until the meter has moved on, two seconds at most: it is brought up to date only so
    /// often, and a reading between two updates is older than it looks.
    NodeSample take_at_update(const HeldSignals& signals) const;

  private:
    pid_t pid_;
    bool has_hardware_ = false;
    bool has_counters_ = false;
    bool has_energy_ = false;
};

}  // namespace easctl
