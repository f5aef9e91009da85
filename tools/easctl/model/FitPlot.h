// The picture of a fit: predicted against measured, of every kernel at every frequency.
#pragma once

#include <string>

#include "tools/easctl/model/ModelFit.h"

namespace easctl {

/// The gnuplot commands; empty when there is no frequency but the default one.
std::string fit_plot(const ModelFit& model);

}  // namespace easctl
