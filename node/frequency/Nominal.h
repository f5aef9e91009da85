// The nominal (base) frequency of a CPU, from the first source that tells it. kHz.
#pragma once

#include <string_view>
#include <vector>

#include "node/frequency/Policy.h"

namespace eas::node {

/// Fills nominal and nominal_source of a policy whose other members are known.
void find_nominal(Policy& policy);

/// Of a node without policies: what firmware and processor say of its first CPU.
[[nodiscard]] int nominal_without_policy(int cpu, int& source);

/// Whether an entry of a driver's table stands for "as fast as turbo allows": it is the first, and
/// 1000 kHz above the second.
[[nodiscard]] bool is_turbo_entry(const std::vector<int>& table, int khz);

/// The frequency that a processor's name ends in: "... @ 2.60GHz"; 0: none.
[[nodiscard]] int nominal_in_name(std::string_view name);

}  // namespace eas::node
