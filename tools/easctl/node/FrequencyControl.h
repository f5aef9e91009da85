// Frequencies of this node for the commands: libeasnode's, with failures as exceptions, and giving
// back what was set before.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "node/node.h"

namespace easctl {

/// CPUs that are set together. Every method throws Failure; what a failed one changed is given
/// back.
class NodeFrequency {
  public:
    /// All CPUs that are online, if `cpus` is empty.
    explicit NodeFrequency(const std::vector<int>& cpus);

    [[nodiscard]] easnode_frequency_info info() const;
    [[nodiscard]] std::vector<easnode_step> steps() const;
    [[nodiscard]] std::vector<easnode_cpu_frequency> rows() const;
    /// What is set now, for give_back; `khz`: what is about to be set, 0: not known.
    [[nodiscard]] std::string save(int khz) const;
    void set(int khz);
    /// The name of an easnode_return_code that is not 0.
    [[nodiscard]] int give_back(const std::string& text);
    [[nodiscard]] easnode_frequency* handle() const { return handle_.get(); }

  private:
    struct Close {
        void operator()(easnode_frequency* handle) const { easnode_frequency_close(handle); }
    };
    std::unique_ptr<easnode_frequency, Close> handle_;
};

/// "intel_pstate by its limits, governor powersave, turbo on, ...".
std::string frequency_text(const easnode_frequency_info& info);

/// The frequency of this node without turbo, and where it comes from. On processors whose registers
/// the library knows it is the ratio of the platform-information register times the model's bus
/// clock, moved to the nearest step; 0: unknown.
struct Nominal {
    int khz;
    std::string from;
};
Nominal nominal_of(const NodeFrequency& frequency, const easnode_frequency_info& info);

/// Every processor of the node that is online; throws Failure when there is no list of them.
std::vector<int> all_cpus();

/// Throws Failure when the governor is refused. What was set before stays set.
void set_governor(const std::vector<int>& cpus, const std::string& governor);

/// Whether the CPUs run at a frequency while they are busy, from its making until `end`.
class ClockCheck {
  public:
    ClockCheck(const NodeFrequency& frequency, int khz);
    ~ClockCheck() { easnode_frequency_check_end(check_, nullptr); }
    ClockCheck(const ClockCheck&) = delete;
    ClockCheck& operator=(const ClockCheck&) = delete;
    easnode_clock end();

  private:
    easnode_frequency_check* check_ = nullptr;
};

/// Gives back what was set when it was made, when it is destroyed. A child process gives it back if
/// this process is killed first. To be made before there are threads.
class FrequencyGuard {
  public:
    explicit FrequencyGuard(NodeFrequency& frequency, int khz = 0);
    ~FrequencyGuard();
    /// What was set since stays set.
    void keep();
    /// Gives back now; false when that failed.
    bool give_back();
    FrequencyGuard(const FrequencyGuard&) = delete;
    FrequencyGuard& operator=(const FrequencyGuard&) = delete;

  private:
    [[noreturn]] void watch(eas::UniqueFd life);

    NodeFrequency& frequency_;
    std::string saved_;  // empty: nothing is to be given back
    eas::UniqueFd life_;
    pid_t watcher_ = -1;
};

}  // namespace easctl
