// What a site's command for power or energy writes; apart from running it.
#pragma once

#include <optional>
#include <string_view>

namespace eas::node {

/// The watts, or joules, in a command's output: one number and its unit (without one: W or J) and
/// no more, or the line of a tool that is known. Null for anything else, also for a negative
/// number, for 0 W, which absent sensors say, and for a unit of the other kind.
[[nodiscard]] std::optional<double> parse_command_output(std::string_view output, bool joules);

}  // namespace eas::node
