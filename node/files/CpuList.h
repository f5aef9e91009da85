// Lists of CPUs as the kernel writes them: "0-31,64-95" or "0 48". Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace eas::node {

/// The CPUs of a list, ascending and each once; an empty text is an empty list. Null for anything
/// that is no list, or names CPUs beyond any kernel's (65535).
[[nodiscard]] std::optional<std::vector<int>> parse_cpu_list(std::string_view text);

/// The list in a file; null where it cannot be read or holds something else.
[[nodiscard]] std::optional<std::vector<int>> read_cpu_list(const std::string& path);

/// The file that lists the CPUs that are online.
constexpr const char* online_cpus_file = "/sys/devices/system/cpu/online";

}  // namespace eas::node
