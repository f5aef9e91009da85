#include "base/DebugFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "base/CancelState.h"

namespace eas {
namespace {

/// A file that is only here: no pipe to wait on, no second name of a file elsewhere. One that was
/// removed since it was opened has no name left, and harms nobody.
bool is_safe_to_append(int fd) noexcept {
    struct stat file {};
    return ::fstat(fd, &file) == 0 && S_ISREG(file.st_mode) && file.st_nlink <= 1;
}

}  // namespace

bool debug_output_wanted() noexcept {
    return std::getenv("DEBUG_THRESHOLD") != nullptr;
}

UniqueFd open_debug_file(const char* path) noexcept {
    constexpr int flags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY;
    const DeferCancellation until_opened;
    UniqueFd file(::open(path, flags, 0777));
    if (file.is_open() && !is_safe_to_append(file.get()))
        file.reset();
    return file;
}

void write_debug_text(int fd, std::string_view text) {
    [[maybe_unused]] const ssize_t written = ::write(fd, text.data(), text.size());
}

}  // namespace eas
