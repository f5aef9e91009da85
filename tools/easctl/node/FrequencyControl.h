// Setting frequencies and governors so that it is seen whether they took effect, and giving back
// what was set before.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace easctl {

/// First line of a file below a CPU's cpufreq folder; empty when there is none.
std::string read_cpufreq(int cpu, const char* file);
/// The cpufreq driver of a CPU, or "unknown".
std::string frequency_driver(int cpu);

/// Every processor of the node; throws Failure when there is no list of them.
std::vector<int> all_cpus();

/// Sets the frequency of these CPUs, reads it back, and throws Failure that names the CPU, the
/// driver and the likely reason when it is another one. What was set before stays set.
void set_frequency(const std::vector<int>& cpus, int khz);
void set_governor(const std::vector<int>& cpus, const std::string& governor);

/// Throws Failure when one of the CPUs does not run at `khz`, after `patience` seconds.
void check_frequency(const std::vector<int>& cpus, int khz, double patience);

/// Remembers governor and frequency of the CPUs; gives them back when it is destroyed. A child
/// process gives them back if this process is killed first. To be made before there are threads.
/// The limits of the frequency range are never touched.
class FrequencyGuard {
  public:
    explicit FrequencyGuard(const std::vector<int>& cpus);
    ~FrequencyGuard();
    /// What was set since stays set.
    void keep();
    /// Gives back now; false when that failed.
    bool give_back();
    FrequencyGuard(const FrequencyGuard&) = delete;
    FrequencyGuard& operator=(const FrequencyGuard&) = delete;

  private:
    struct Saved {
        int cpu;
        std::string governor;
        int khz;  // of the governor "userspace"
    };
    bool restore();
    [[noreturn]] void watch(eas::UniqueFd life);

    std::vector<Saved> saved_;
    eas::UniqueFd life_;
    pid_t watcher_ = -1;
};

}  // namespace easctl
