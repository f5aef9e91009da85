// The text of the node controller's energy counter, apart from the file that it stands in.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace eas::node {

/// "598732067 J", newer ones with the time behind it: "598732067 J 1764205321 us". Null for others.
[[nodiscard]] std::optional<std::uint64_t> parse_joules(std::string_view text);

}  // namespace eas::node
