// A file that is there whole or not at all.
#pragma once

#include <string>

namespace easctl {

/// Writes beside `path` and renames; an earlier file stays as it was until then. Throws Failure.
void write_file(const std::string& path, const std::string& text);

}  // namespace easctl
