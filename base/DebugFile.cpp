#include "base/DebugFile.h"

#include <fcntl.h>

#include <cstdlib>

#include "base/DeferCancellation.h"

namespace eas {

bool debug_output_wanted() noexcept {
    return std::getenv("DEBUG_THRESHOLD") != nullptr;
}

UniqueFd open_debug_file(const char* path) noexcept {
    constexpr int flags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY;
    const DeferCancellation until_opened;
    return UniqueFd(::open(path, flags, 0777));
}

}  // namespace eas
