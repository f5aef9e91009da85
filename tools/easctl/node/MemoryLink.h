// The link behind the bytes of memory traffic. Where it is broken the library counts 0, and no tag
// can be made of such a job.
#pragma once

#include "common/node/CpuTopology.h"
#include "tools/easctl/cli/Link.h"

namespace easctl {

/// Looks at what hwrusage::membytes_xferred is made of on these processors.
Link examine_memory_counters(const cpuinfo_t& processors);

}  // namespace easctl
