#include "tools/easctl/tag/TagVerify.h"

#include <cmath>

#include "base/Numbers.h"
#include "common/model/CoEfficients.h"
#include "common/model/EnergyTag.h"
#include "common/model/JobMetrics.h"

namespace easctl {

namespace {

constexpr double too_flat = 1e-6;  // a factor that cannot be divided by

bool within_limit(const Comparison& comparison, double limit) {
    return std::fabs(comparison.error()) <= limit;  // false for NaN
}

}  // namespace

bool Verification::within(const ErrorLimits& limits) const {
    return within_limit(power, limits.power) && within_limit(time, limits.time) &&
           within_limit(energy, limits.energy);
}

std::optional<Verification> verify(const EnergyTag& tag, const Run& run) {
    for (std::size_t i = 0; i < tag.frequency_array().size(); ++i) {
        if (tag.frequency_array()[i] != run.frequency)
            continue;
        const double watts = tag.predict_power_array()[i];
        const auto seconds = static_cast<double>(tag.predict_elapse_time_array()[i]);
        const auto measured = static_cast<double>(run.elapsed_s);
        return Verification{
            {watts, run.power_w}, {seconds, measured}, {watts * seconds, run.power_w * measured}};
    }
    return {};
}

std::optional<EnergyTag> tag_of_run(const CoEfficients& coeffs, const EnergyTag& like,
                                    const Run& run) {
    CoEfficients copy(coeffs);
    const int row = copy.getCoeffFreqIndex(run.frequency);
    if (!run.counters || row < 0)
        return {};
    const auto [cycles, instructions, bytes] = *run.counters;
    double cpi = CPI(cycles, instructions);
    double power = run.power_w;
    double seconds = run.elapsed_s;
    const int default_frequency = copy.getDefaultFrequency();
    if (run.frequency != default_frequency) {
        const auto i = static_cast<std::size_t>(row);
        const double a = copy.CoEfficientA_Array()[i];
        const double d = copy.CoEfficientD_Array()[i];
        if (std::fabs(a) < too_flat || std::fabs(d) < too_flat)
            return {};
        const double x = bytes / instructions / 64.0;
        const double there = cpi;
        cpi = (there - copy.CoEfficientE_Array()[i] * x - copy.CoEfficientF_Array()[i]) / d;
        power = (power - copy.CoEfficientB_Array()[i] * x - copy.CoEfficientC_Array()[i]) / a;
        seconds *= cpi / there * run.frequency / default_frequency;
    }
    const int whole_seconds = eas::truncate_to_int(std::round(seconds));
    if (whole_seconds < 1)
        return {};
    EnergyTag tag(&copy, like.cluster_name().c_str(), like.user_name().c_str(),
                  like.job_step_id().c_str(), like.energy_tag_name().c_str(), power, whole_seconds,
                  GBS(bytes, whole_seconds), GIPS(instructions, whole_seconds), cpi);
    if (tag.available() == 0)
        return {};
    return tag;
}

}  // namespace easctl
