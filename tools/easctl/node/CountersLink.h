// The links behind the registers and core counters of gethwrusage.
#pragma once

#include "common/model/CoEfficients.h"
#include "tools/easctl/cli/Link.h"

namespace easctl {

Link examine_registers(const CoEfficients& model);

/// Opens the events that gethwrusage opens, all at once, and closes them.
Link examine_core_counters(const CoEfficients& model);

}  // namespace easctl
