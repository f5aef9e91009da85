// The link behind the bytes of memory traffic. Where it is broken the library counts 0, and no tag
// can be made of such a job.
#pragma once

#include "tools/easctl/cli/Link.h"

namespace easctl {

constexpr const char* memory_link = "memory counters";
/// Looks at what hwrusage::membytes_xferred is made of. The topology must have been read.
Link examine_memory_counters();

}  // namespace easctl
