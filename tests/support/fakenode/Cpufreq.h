// The cpufreq policies of a fake node: what their drivers accept, refuse and show, and the clock
// that comes of it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/support/fakenode/NodeCpus.h"
#include "tests/support/fakenode/NodeState.h"

namespace eas::fake {

/// One policy: kHz as the driver takes them.
struct FreqPolicy {
    int number;
    TreeEntry* folder;
    std::vector<int> cpus;
    std::vector<int> table;  // highest first; empty: the driver has no list
    int lowest, highest;     // of the hardware, turbo included
    int nominal;             // the ceiling without turbo
    int step;                // the hardware rounds down to multiples; 0: none
    bool own_powersave;      // governor powersave is an algorithm of the driver, not the minimum
    int cap;                 // of the firmware, bios_limit; 0: none
    bool turbo = true;       // by the policy's own switch
    int min, max;
    int speed;  // under governor userspace
    std::string governor;
};

class Cpufreq {
  public:
    /// Attaches the files of every policy and the turbo switches under `root`.
    Cpufreq(const NodeShape& shape, NodeState& state, const NodeCpus& cpus, TreeEntry& root);

    /// The clock of a busy CPU, kHz.
    [[nodiscard]] int clock_of(int cpu) const;
    /// The speed of its reference cycles, kHz.
    [[nodiscard]] int nominal_of(int cpu) const;

  private:
    void add_policy(int number, TreeEntry& folder);
    void attach(FreqPolicy& policy, const std::string& name, std::function<std::string()> show,
                std::function<int(const std::string&)> store = nullptr);
    void attach_settings(FreqPolicy& policy);
    void attach_preference(FreqPolicy& policy);
    void attach_turbo(TreeEntry& folder, const std::string& name, int number, bool* on,
                      bool inverse = false);
    [[nodiscard]] int ceiling_of(const FreqPolicy& policy) const;
    [[nodiscard]] int entry_for(const FreqPolicy& policy, int khz) const;
    [[nodiscard]] int requested(const FreqPolicy& policy) const;
    [[nodiscard]] int clock(const FreqPolicy& policy) const;
    int store_limit(FreqPolicy& policy, const std::string& text, bool upper);
    int store_governor(FreqPolicy& policy, const std::string& text);
    int store_speed(FreqPolicy& policy, const std::string& text);
    void forget_limits();

    const NodeShape& shape_;
    NodeState& state_;
    const NodeCpus& cpus_;
    TreeEntry& folder_;  // of all CPUs
    std::vector<std::unique_ptr<FreqPolicy>> policies_;
    std::vector<FreqPolicy*> by_cpu_;
    bool turbo_ = true;  // by the switch of all policies
};

}  // namespace eas::fake
