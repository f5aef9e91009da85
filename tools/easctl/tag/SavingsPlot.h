// The pictures of a simulation.
#pragma once

#include <string>
#include <vector>

#include "tools/easctl/tag/Savings.h"

namespace easctl {

/// The gnuplot commands of a picture of the changes of energy and time: against the threshold of a
/// sweep, a panel for each policy, or, without one, as bars for each class. The first of `shown` is
/// the total; of the others the first ones are drawn, as many as can be told apart.
std::string savings_plot(const std::vector<NamedSums>& shown,
                         const std::vector<Scenario>& scenarios);

}  // namespace easctl
