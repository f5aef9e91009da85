#include "tools/easctl/tag/TagVerify.h"

#include <cmath>

#include "base/Numbers.h"
#include "common/model/CoEfficients.h"
#include "common/model/EnergyTag.h"
#include "common/model/JobMetrics.h"

namespace easctl {

namespace {

bool within_limit(const Comparison& comparison, double limit) {
    return std::fabs(comparison.error()) <= limit;  // false for NaN
}

}  // namespace

bool Verification::within(const ErrorLimits& limits) const {
    return within_limit(power, limits.power) && within_limit(time, limits.time) &&
           within_limit(energy, limits.energy);
}

std::optional<Verification> verify(const EnergyTag& tag, const JobRun& run) {
    const std::optional<eas::TagRow> row = tag.row_of(run.frequency);
    if (!row)
        return {};
    const auto measured = static_cast<double>(run.elapsed_s);
    return Verification{{row->power, run.power_w},
                        {static_cast<double>(row->seconds), measured},
                        {row->energy(), run.power_w * measured}};
}

std::optional<EnergyTag> tag_of_run(const CoEfficients& coeffs, const EnergyTag& like,
                                    const JobRun& run) {
    const int index = coeffs.getCoeffFreqIndex(run.frequency);
    if (!run.counters || index < 0)
        return {};
    const auto [cycles, instructions, bytes] = *run.counters;
    double cpi = CPI(cycles, instructions);
    double power = run.power_w;
    double seconds = run.elapsed_s;
    const int default_khz = coeffs.getDefaultFrequency();
    if (run.frequency != default_khz) {
        const eas::ModelRow row = coeffs.row(static_cast<std::size_t>(index));
        if (!row.is_invertible())
            return {};
        const double lines = eas::lines_per_instruction(bytes, instructions);
        power = row.power_at_default(power, lines);
        seconds = row.seconds_at_default(seconds, cpi, lines, default_khz);
        cpi = row.pace_at_default(cpi, lines);
    }
    const int whole_seconds = eas::truncate_to_int(std::round(seconds));
    if (whole_seconds < 1)
        return {};
    EnergyTag tag(&coeffs, like.cluster_name().c_str(), like.user_name().c_str(),
                  like.job_step_id().c_str(), like.energy_tag_name().c_str(), power, whole_seconds,
                  GBS(bytes, whole_seconds), GIPS(instructions, whole_seconds), cpi);
    if (tag.available() == 0)
        return {};
    return tag;
}

}  // namespace easctl
