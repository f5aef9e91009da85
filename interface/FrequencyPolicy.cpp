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
    const auto& saving = tag.energy_saving_pct_array();
    double best = 0.0;
    eas::FrequencyChoice choice{0, 0.0};
    for (std::size_t i = 0; i < saving.size(); ++i) {
        if (!eas::is_energy_candidate(tag, i, thresholds) || !(best > saving[i]))
            continue;
        best = saving[i];
        choice = {tag.frequency_array()[i], tag.perf_degrad_pct_array()[i]};
    }
    return choice.frequency == 0 || best > tolerance ? fall_back(tag) : choice;
}

eas::FrequencyChoice least_time(const EnergyTag& tag, const EnergyPerfThreshold& thresholds) {
    for (std::size_t i = tag.frequency_array().size(); i-- > 0;) {
        if (eas::is_time_candidate(tag, i, thresholds)) {
            return {tag.frequency_array()[i], tag.perf_degrad_pct_array()[i]};
        }
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

bool is_energy_candidate(const EnergyTag& tag, std::size_t i,
                         const EnergyPerfThreshold& thresholds) {
    const double limit = thresholds.get_def_perf() / 100.0;
    return tag.perf_degrad_pct_array()[i] - limit < tolerance &&
           tag.frequency_array()[i] <= tag.default_frequency();
}

bool is_time_candidate(const EnergyTag& tag, std::size_t i, const EnergyPerfThreshold& thresholds) {
    const int frequency = tag.frequency_array()[i];
    if (frequency < tag.default_frequency())
        return false;
    // Limits per frequency are kept as fractions, unlike the general limit, a percentage.
    const auto limit = thresholds.getThresValue().find(frequency);
    return limit != thresholds.getThresValue().end() &&
           tag.perf_degrad_pct_array()[i] - limit->second < tolerance;
}

}  // namespace eas
