// The files of a fake node that the simulated work moves: powercap zones, hwmon meters, the node's
// own energy counter, resctrl's byte counters, the busy time of /proc/stat.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/support/fakenode/Workload.h"

namespace eas::fake {

class Meters {
  public:
    Meters(const NodeShape& shape, const Workload& workload, const NodeCpus& cpus, TreeEntry& root);

    /// To be called after each advance of the workload: a meter of an interval takes its samples.
    void tick();

  private:
    /// A reading that changes once per interval and repeats itself between.
    struct Sampled {
        double interval;  // s
        std::function<double()> joules;
        double since = 0, from = 0;     // of the running interval: s, J
        double watts = 0, reading = 0;  // of the last whole one; joules at its end
        long count = 0;
    };

    using Joules = std::function<double()>;

    [[nodiscard]] double share(const std::string& what, double otherwise) const;
    [[nodiscard]] Joules joules(double share, int socket) const;
    Sampled& sampled(double interval, Joules joules);
    void attach_zone(const std::string& name, TreeEntry& zone, TreeEntry& zones);
    void attach_hwmon(TreeEntry& chip);
    void attach_node_counter(TreeEntry& folder);
    void attach_resctrl(TreeEntry& root);
    void attach_bytes(TreeEntry& group, double share);
    void attach_stat(const NodeCpus& cpus, TreeEntry& root);

    const NodeShape& shape_;
    const Workload& work_;
    std::vector<std::unique_ptr<Sampled>> sampled_;
};

}  // namespace eas::fake
