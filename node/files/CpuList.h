// Lists of CPUs as the kernel writes them: "0-3,8" or "0 1 2 8".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace eas::node {

/// Beyond every kernel's NR_CPUS; a list with a larger number is none.
constexpr int kMostCpus = 65536;

/// Ascending, each once. An empty text is an empty list; a text that is no list gives no value.
[[nodiscard]] std::optional<std::vector<int>> parse_cpu_list(std::string_view text);

/// "0-3,8"; empty for no CPU. `cpus` are ascending.
[[nodiscard]] std::string cpu_list_text(const std::vector<int>& cpus);

}  // namespace eas::node
