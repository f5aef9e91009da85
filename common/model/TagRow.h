// One row of an energy tag: what its job is predicted to do at one frequency.
#pragma once

#include <cmath>

namespace eas {

struct TagRow {
    int frequency;         // kHz
    double power;          // W, mean of a node
    double energy_change;  // against the measured run, a fraction; negative saves
    int seconds;           // run time
    double time_change;    // a fraction; positive is slower

    /// Whether the row is the measured run: it neither saves nor loses anything.
    [[nodiscard]] bool is_measured() const noexcept {
        constexpr double no_change = 1e-7;
        return std::fabs(energy_change) < no_change && std::fabs(time_change) < no_change;
    }
    /// J of a node.
    [[nodiscard]] double energy() const noexcept { return power * static_cast<double>(seconds); }
};

}  // namespace eas
