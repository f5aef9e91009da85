// Lists of processors as the kernel writes them: "0-3,8".
#pragma once

#include <string>
#include <vector>

namespace easctl {

/// The processors of a list, or all of the node for "all"; throws Failure for what is no list, and
/// for one that the node does not have.
std::vector<int> parse_cpus(const std::string& text);

/// "0-3 8": without commas, to stand in a CSV field.
std::string cpu_text(const std::vector<int>& cpus);

}  // namespace easctl
