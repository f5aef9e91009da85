// A file that is there whole or not at all.
#pragma once

#include <string>

namespace easctl {

/// Writes beside `path`, synchronises and renames; an earlier file stays as it was until then, and
/// hands its mode and owner on. A link is followed, and what is no plain file is written directly.
/// Throws Failure.
void write_file(const std::string& path, const std::string& text);

}  // namespace easctl
