// The cpufreq policies: CPUs that share one clock, what their driver offers, what is set for them.
// kHz throughout. Nothing is cached; any thread may call.
#pragma once

#include <string>
#include <vector>

#include "node/frequency/Problem.h"

namespace eas::node {

/// What stays the same while a driver is loaded.
struct Policy {
    int number = 0;
    std::vector<int> cpus;  // those that are online, ascending

    // What complete_policy reads.
    std::string driver;
    bool has_boost = true;          // a turbo switch of its own; true: not looked for
    bool has_preference = true;     // energy_performance_preference; the same
    bool offers_userspace = false;  // the governor that takes a frequency
    std::vector<int> table;         // highest first; empty: the driver has none
    int lowest = 0;                 // of the hardware; 0: unknown
    int nominal = 0;                // 0: unknown
    int nominal_source = EASNODE_NOMINAL_UNKNOWN;

    [[nodiscard]] int cpu() const { return cpus.empty() ? -1 : cpus.front(); }
    /// Path of one of its files.
    [[nodiscard]] std::string file(const char* name) const;
    /// The highest frequency now, with turbo while that is on; 0: unknown.
    [[nodiscard]] int highest() const;
    /// A limit that the firmware holds now; 0: none.
    [[nodiscard]] int bios_limit() const;
};

/// What can be set for a policy.
struct Settings {
    std::string governor;
    int min = 0;
    int max = 0;
    int speed = -1;          // under the governor "userspace"; -1: another governor
    int boost = -1;          // turbo switch of this policy, 0 or 1; -1: it has none
    std::string preference;  // energy_performance_preference; empty: none

    friend bool operator==(const Settings& a, const Settings& b) {
        return a.governor == b.governor && a.min == b.min && a.max == b.max && a.speed == b.speed &&
               a.boost == b.boost && a.preference == b.preference;
    }
};

/// All policies that have an online CPU, by number: number and CPUs.
[[nodiscard]] std::vector<Policy> read_policies();

[[nodiscard]] std::string driver_of(const Policy& policy);

/// Reads what the driver offers.
void complete_policy(Policy& policy);

/// False, with `problem`, when governor or limits cannot be read; `settings` then means nothing.
[[nodiscard]] bool read_settings(const Policy& policy, Settings& settings, Problem& problem);

/// Writes what differs from `wanted`, widening limits before they are narrowed, and reads it back.
/// An empty governor or preference and a boost of -1 are not wanted. `just_read` is what stands
/// there, or null. False, with `problem`, at the first refusal, or when
/// something else stands there afterwards.
[[nodiscard]] bool apply_settings(const Policy& policy, const Settings* just_read,
                                  const Settings& wanted, Problem& problem);

}  // namespace eas::node
