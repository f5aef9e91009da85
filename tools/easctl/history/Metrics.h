// Sums of runs in the text format that Prometheus reads.
//
// Names end in their unit, and in _total where they only grow. Labels are few and bounded: cluster
// (the first 16, then "other"), policy and outcome (known words, "none", "other").
#pragma once

#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "tools/easctl/history/Drift.h"
#include "tools/easctl/history/RunSums.h"

namespace easctl {

class Metrics {
  public:
    explicit Metrics(const DriftLimits& limits) : drift_(limits) {}
    void add(const Run& run);
    [[nodiscard]] std::string text(const RunCounts& counts) const;

  private:
    /// |miss| of energy in the buckets of a histogram.
    struct Misses {
        static constexpr std::array limits{0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1.0};
        std::array<double, limits.size()> at_most{};
        double count = 0;
        double sum = 0;
        void add(double miss, double runs);
    };
    struct Sums {
        std::map<std::string, double> runs;  // by outcome
        double energy_j = 0, time_s = 0;
        Pair compared, checked;
        Misses misses;
    };

    std::string cluster_label(const std::string& cluster);
    void add_families(std::string& text) const;
    void add_misses(std::string& text) const;
    void add_drift(std::string& text) const;

    std::map<std::string, bool> clusters_;
    std::map<std::pair<std::string, std::string>, Sums> sums_;  // by cluster and policy
    std::optional<double> last_;
    Drift drift_;
};

}  // namespace easctl
