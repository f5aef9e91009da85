#include "interface/FrequencyPolicy.h"

#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "interface/LibraryState.h"

namespace {

// Two predictions that differ by less are the same.
constexpr double tolerance = 0.0000001;

/// The default frequency, where no candidate is better.
eas::FrequencyChoice fall_back(const EnergyTag& tag) {
    const int nominal = tag.get_nominal_freq();
    // Both branches give the default frequency; where it is the top one it is named by that role.
    return {nominal == tag.default_frequency() ? nominal : tag.default_frequency(), 0.0};
}

eas::FrequencyChoice least_energy(const EnergyTag& tag, const EnergyPerfThreshold& thresholds) {
    double best = 0.0;
    eas::FrequencyChoice choice{0, 0.0};
    for (const eas::TagRow& row : tag.rows()) {
        if (!eas::is_energy_candidate(row, tag.default_frequency(), thresholds) ||
            !(best > row.energy_change))
            continue;
        best = row.energy_change;
        choice = {row.frequency, row.time_change};
    }
    return choice.frequency == 0 || best > tolerance ? fall_back(tag) : choice;
}

eas::FrequencyChoice least_time(const EnergyTag& tag, const EnergyPerfThreshold& thresholds) {
    for (std::size_t i = tag.rows().size(); i-- > 0;) {
        const eas::TagRow row = tag.row(i);
        if (eas::is_time_candidate(row, tag.default_frequency(), thresholds))
            return {row.frequency, row.time_change};
    }
    return fall_back(tag);
}

}  // namespace

void selectedFrequencyPolicy(const EnergyTag& etag, const std::string& policy, int& freq,
                             double& time_var) {
    const eas::FrequencyChoice choice = eas::select_frequency(etag, policy, *global_threshold);
    freq = choice.frequency;
    time_var = choice.time_var;
}

namespace eas {

FrequencyChoice select_frequency(const EnergyTag& tag, std::string_view policy,
                                 const EnergyPerfThreshold& thresholds) {
    if (policy == minimize_energy)
        return least_energy(tag, thresholds);
    if (policy == minimize_time)
        return least_time(tag, thresholds);
    return {0, 0.0};
}

bool is_energy_candidate(const TagRow& row, int default_frequency,
                         const EnergyPerfThreshold& thresholds) {
    const double limit = thresholds.get_def_perf() / 100.0;
    return row.time_change - limit < tolerance && row.frequency <= default_frequency;
}

bool is_time_candidate(const TagRow& row, int default_frequency,
                       const EnergyPerfThreshold& thresholds) {
    if (row.frequency < default_frequency)
        return false;
    // Limits per frequency are kept as fractions, unlike the general limit, a percentage.
    const auto limit = thresholds.getThresValue().find(row.frequency);
    return limit != thresholds.getThresValue().end() && row.time_change - limit->second < tolerance;
}

}  // namespace eas
