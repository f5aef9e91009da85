// A threshold file: the library's own verdict, and line by line what it drops, and why.
#pragma once

#include <map>
#include <string>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "tools/easctl/cli/Findings.h"

namespace easctl {

struct ThresholdFile {
    EnergyPerfThreshold thresholds;
    std::map<int, int> given;  ///< the line that gives a frequency's value, by kHz
    Findings findings;         ///< what is dropped is an error, too
};

/// What the library makes of such a text for a model, which must outlive the result.
EnergyPerfThreshold parse_thresholds(const std::string& text, CoEfficients& model);

/// Reads the file against a model, which must outlive the result. Throws Failure when it cannot be
/// read.
ThresholdFile read_threshold_file(const std::string& path, CoEfficients& model);

}  // namespace easctl
