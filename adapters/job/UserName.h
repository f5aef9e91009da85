// UserName.h - the name under which a user's tags are kept.
#pragma once

#include <cstdint>
#include <string>

namespace eas::job {

/// Throws std::runtime_error when the user has no name on this node.
std::string user_name(uint32_t user);

}  // namespace eas::job
