// How long each CPU was busy, as /proc/stat counts it in clock ticks. Any thread may call.
#pragma once

#include <map>
#include <string_view>

namespace eas::node {

/// Ticks by CPU: time in programs, in the kernel and in interrupts; neither idle nor stolen by a
/// virtual machine's host. CPUs whose line cannot be read are left out.
using BusyTicks = std::map<int, unsigned long long>;

[[nodiscard]] BusyTicks parse_busy_ticks(std::string_view stat);

/// Empty when /proc/stat cannot be read.
[[nodiscard]] BusyTicks read_busy_ticks();

}  // namespace eas::node
