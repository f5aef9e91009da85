// A file that is there whole or not at all, as far as its folder lets that be.
#pragma once

#include <string>

namespace easctl {

/// Writes beside `path`, synchronises and renames; an earlier file stays as it was until then, and
/// hands its mode and owner on. A link is followed. Written directly is what is no plain file, and
/// what may be written but not replaced by its like. Throws Failure.
void write_file(const std::string& path, const std::string& text);

}  // namespace easctl
