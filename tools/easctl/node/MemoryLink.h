// The link behind hwrusage::membytes_xferred: the memory counters that a program sets up itself.
// Looking at them changes nothing.
#pragma once

#include "common/node/CpuTopology.h"
#include "tools/easctl/cli/Link.h"

namespace easctl {

/// Whether the memory counters of these processors can be programmed and read.
Link examine_memory_counters(const cpuinfo_t& processors);

}  // namespace easctl
