#include "adapters/job/UserName.h"

#include <pwd.h>

#include <array>
#include <stdexcept>

namespace eas::job {

std::string user_name(uint32_t user) {
    std::array<char, 16384> space;
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(user, &entry, space.data(), space.size(), &found) != 0 || found == nullptr)
        throw std::runtime_error("user " + std::to_string(user) + " has no name on this node");
    return found->pw_name;
}

}  // namespace eas::job
