// What EnergyUtil reads from /proc/cpuinfo; apart from the opening of the file, so that any text
// can be read. Any thread; the stream stays open.
#pragma once

#include <cstdio>
#include <vector>

namespace eas {

/// Appends the number of every "processor" line, 0 for one without a number. Memory that is out
/// ends it with std::bad_alloc.
void append_cpu_ids(std::FILE* cpuinfo, std::vector<int>& cpuids);

/// Hardware threads of the node as the block of processor `cpuid` tells them; below 1 when it does
/// not.
[[nodiscard]] int count_node_threads(std::FILE* cpuinfo, int cpuid);

}  // namespace eas
