// The two debug files of the library lie in /tmp, where every user can write.
#pragma once

#include <string_view>

#include "base/UniqueFd.h"

namespace eas {

/// Whether the administrator asked for the debug files: the environment variable
/// "DEBUG_THRESHOLD" is set, to whatever value. Looked up on every call.
[[nodiscard]] bool debug_output_wanted() noexcept;

/// Opens `path` for reading and appending, creating it with mode 0777 less the umask. What somebody
/// planted there is refused: a symbolic link, another name of a file elsewhere, a pipe. The result
/// is not open after a failure.
[[nodiscard]] UniqueFd open_debug_file(const char* path) noexcept;

/// Writes `text` at once. A log is an aid: what cannot be written, to whatever descriptor, is lost.
void write_debug_text(int fd, std::string_view text);

}  // namespace eas
