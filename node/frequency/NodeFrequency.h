// The frequencies of some CPUs of the node: what they offer together, fixing them, giving back.
// kHz. An instance belongs to one thread at a time; the files of the kernel belong to everybody.
#pragma once

#include <string_view>
#include <vector>

#include "node/frequency/Policy.h"
#include "node/frequency/SavedSettings.h"
#include "node/frequency/TurboSwitch.h"

namespace eas::node {

struct Step {
    int khz;
    bool turbo;
};

/// Whether `khz` stands for turbo on this policy.
[[nodiscard]] bool is_turbo(const Policy& policy, int khz);

class NodeFrequency {
  public:
    /// The policies of these CPUs, which are online; all that are online if there are none given.
    /// False, with `problem`, for a CPU that is not online.
    [[nodiscard]] bool open(std::vector<int> cpus, Problem& problem);

    [[nodiscard]] const std::vector<Policy>& policies() const { return policies_; }
    /// Ascending: those asked for, and those that share a clock with them.
    [[nodiscard]] const std::vector<int>& cpus() const { return cpus_; }
    /// Those that have no policy, so that nothing can be set for them.
    [[nodiscard]] const std::vector<int>& bare_cpus() const { return bare_cpus_; }
    [[nodiscard]] bool is_whole_node() const { return whole_node_; }
    /// The nominal frequency of the slowest; 0: unknown.
    [[nodiscard]] int nominal(int& source) const;
    /// What all of them offer, highest first.
    [[nodiscard]] std::vector<Step> steps() const;

    /// What is set now. False, with `problem`, where something cannot be read.
    [[nodiscard]] bool save(int asked, SavedSettings& saved, Problem& problem) const;
    /// Fixes all at `khz`; after a failure what was changed is given back.
    [[nodiscard]] bool fix(int khz, Problem& problem);
    /// The frequency that was fixed last; 0: none.
    [[nodiscard]] int fixed() const { return fixed_; }

  private:
    [[nodiscard]] bool may_fix(int khz, const TurboSwitch& wanted, Problem& problem) const;
    [[nodiscard]] TurboSwitch switch_for(int khz) const;

    std::vector<Policy> policies_;
    std::vector<int> cpus_;
    std::vector<int> bare_cpus_;
    bool whole_node_ = false;
    int fixed_ = 0;
};

/// Gives back what was saved, as far as it goes. `asked` is the frequency that was fixed meanwhile,
/// 0: not known. False, with `problem`, unless all is given back and nobody else had changed it.
[[nodiscard]] bool give_back(const SavedSettings& saved, int asked, Problem& problem);

}  // namespace eas::node
