// Does a tag still describe its job? A later run's measurements beside what the tag predicted.
#pragma once

#include <array>
#include <optional>

class CoEfficients;
class EnergyTag;

namespace easctl {

/// What was measured on a run.
struct JobRun {
    int frequency;                                  // kHz, of the run
    int elapsed_s;                                  // s
    double power_w;                                 // W, mean of a node
    std::optional<std::array<double, 3>> counters;  // cycles, instructions, bytes of memory traffic
};

struct Comparison {
    double predicted;
    double measured;
    /// By how much the measurement lies above the prediction, a fraction of the prediction.
    [[nodiscard]] double error() const { return measured / predicted - 1.0; }
};

/// The largest errors at which a tag still counts as describing its job, fractions. Models of this
/// kind predict power and time to a few percent; energy is their product.
struct ErrorLimits {
    double power;
    double time;
    double energy;
};

struct Verification {
    Comparison power;   // W
    Comparison time;    // s
    Comparison energy;  // J

    [[nodiscard]] bool within(const ErrorLimits& limits) const;
};

/// No value when the tag has no row of the run's frequency.
std::optional<Verification> verify(const EnergyTag& tag, const JobRun& run);

/// The tag that the run itself would give: what it would have been at the default frequency, by the
/// model turned round, and from there all frequencies. No value without counters, for a frequency
/// that the model does not know, or where the figures allow no prediction.
std::optional<EnergyTag> tag_of_run(const CoEfficients& coeffs, const EnergyTag& like,
                                    const JobRun& run);

}  // namespace easctl
