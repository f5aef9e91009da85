// Whether resctrl is there to be read; apart from the file that tells it.
#pragma once

#include <string_view>

namespace eas::node {

/// Whether /proc/mounts lists it in its usual place.
[[nodiscard]] bool is_mounted(std::string_view mounts);

}  // namespace eas::node
