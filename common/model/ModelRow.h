// One row of a cluster's model: what a frequency makes of a job that was measured at the default
// frequency, and what a run at this frequency would have been there.
//
// Power in W, pace in cycles per instruction, memory traffic in cache lines per instruction (see
// JobMetrics.h). The formulas are evaluated in the order in which they are written.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>

namespace eas {

struct ModelRow {
    int frequency = 0;                // kHz
    std::array<double, 6> factors{};  // A to F

    /// Whether the row marks the default frequency: all six are near zero. A signed comparison, so
    /// a negative one counts as zero.
    [[nodiscard]] bool marks_default() const noexcept {
        constexpr double near_zero = 1e-6;
        return std::all_of(factors.begin(), factors.end(), [](double f) { return f < near_zero; });
    }

    [[nodiscard]] double power(double at_default, double lines) const noexcept {
        return factors[0] * at_default + (factors[1] * lines + factors[2]);
    }
    [[nodiscard]] double pace(double at_default, double lines) const noexcept {
        return factors[3] * at_default + factors[4] * lines + factors[5];
    }
    /// `pace_at_default` must not be 0, nor the row's frequency.
    [[nodiscard]] double seconds(double at_default, double pace_at_default, double lines,
                                 int default_frequency) const noexcept {
        return at_default * pace(pace_at_default, lines) / pace_at_default *
               static_cast<double>(default_frequency) / static_cast<double>(frequency);
    }

    /// Whether what follows can be asked: the predictions depend on what they are made from.
    [[nodiscard]] bool is_invertible() const noexcept {
        constexpr double too_flat = 1e-6;
        return !(std::fabs(factors[0]) < too_flat) && !(std::fabs(factors[3]) < too_flat);
    }
    [[nodiscard]] double power_at_default(double here, double lines) const noexcept {
        return (here - factors[1] * lines - factors[2]) / factors[0];
    }
    [[nodiscard]] double pace_at_default(double here, double lines) const noexcept {
        return (here - factors[4] * lines - factors[5]) / factors[3];
    }
    [[nodiscard]] double seconds_at_default(double here, double pace_here, double lines,
                                            int default_frequency) const noexcept {
        return here *
               (pace_at_default(pace_here, lines) / pace_here * frequency / default_frequency);
    }
};

}  // namespace eas
