// The switch that allows or forbids turbo on all CPUs at once: cpufreq/boost, or
// intel_pstate/no_turbo, whose sense is the opposite. Any thread may call.
#pragma once

#include <string>

#include "node/frequency/Problem.h"

namespace eas::node {

struct TurboSwitch {
    enum class Kind { none, boost, no_turbo };

    Kind kind = Kind::none;
    bool on = false;  // turbo is allowed

    friend bool operator==(const TurboSwitch& a, const TurboSwitch& b) {
        return a.kind == b.kind && a.on == b.on;
    }
};

/// As it stands now; kind none where there is no such switch.
[[nodiscard]] TurboSwitch read_turbo_switch();

/// Sets it, unless it stands so. A node that does not have this switch any more is a failure.
/// False with `problem`.
[[nodiscard]] bool set_turbo_switch(const TurboSwitch& wanted, Problem& problem);

}  // namespace eas::node
