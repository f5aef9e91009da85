// Why a frequency is selected for a tag: every candidate with the rule that admitted or rejected
// it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "interface/FrequencyPolicy.h"

class EnergyPerfThreshold;
class EnergyTag;

namespace easctl {

enum class Verdict { rejected, admitted, selected };

struct Candidate {
    int frequency;         // kHz
    double energy_change;  // fraction
    double time_change;    // fraction
    Verdict verdict;
    std::string reason;
};

struct Explanation {
    eas::FrequencyChoice choice;
    std::string rule;  // of the policy, with the site's figures
    std::vector<Candidate> candidates;
};

/// Explains the choice of select_frequency(), row by row in the tag's order. No candidates for an
/// unknown policy.
Explanation explain(const EnergyTag& tag, std::string_view policy,
                    const EnergyPerfThreshold& thresholds);

}  // namespace easctl
