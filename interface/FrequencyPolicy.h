// The selection rule: which frequency a job's tag and the site's thresholds lead to.
//
// Frequencies are kHz; changes are fractions, negative energy change saves, positive run-time
// change is slower.
#pragma once

#include <string>
#include <string_view>

class EnergyPerfThreshold;
class EnergyTag;

/// Selects by the library-wide thresholds, which must be set. `freq` 0 for an unknown policy.
void selectedFrequencyPolicy(const EnergyTag& etag, const std::string& policy, int& freq,
                             double& time_var);

namespace eas {

struct TagRow;

inline constexpr std::string_view minimize_energy = "minimize_energy";
inline constexpr std::string_view minimize_time = "minimize_time";

struct FrequencyChoice {
    int frequency;    // kHz; 0 for an unknown policy
    double time_var;  // expected run-time change; 0 when the default frequency is the fall-back
};

/// The same by thresholds of the caller's.
FrequencyChoice select_frequency(const EnergyTag& tag, std::string_view policy,
                                 const EnergyPerfThreshold& thresholds);

/// Whether a row of a tag may be selected under "minimize_energy": it does not lie above the
/// default frequency and loses no more time than the site's general limit allows.
bool is_energy_candidate(const TagRow& row, int default_frequency,
                         const EnergyPerfThreshold& thresholds);

/// Whether a row of a tag may be selected under "minimize_time": it does not lie below the default
/// frequency and gains at least the time that the site demands of its frequency.
bool is_time_candidate(const TagRow& row, int default_frequency,
                       const EnergyPerfThreshold& thresholds);

}  // namespace eas
