// The picture of a tag: energy against run time at every frequency, with what each policy selects.
#pragma once

#include <string>

class EnergyPerfThreshold;
class EnergyTag;

namespace easctl {

/// The gnuplot commands of the picture.
std::string trade_off_plot(const EnergyTag& tag, const EnergyPerfThreshold& thresholds);

}  // namespace easctl
