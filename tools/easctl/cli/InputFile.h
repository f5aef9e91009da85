// An input file, read once: what is judged of it is then what is used, whether it is a pipe or
// changes meanwhile.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/UniqueFd.h"
#include "base/UniqueFile.h"

namespace easctl {

/// Opens a file for reading, "-" being standard input. Throws Failure.
eas::UniqueFd open_input(const std::string& path);

/// The whole of such a file. Throws Failure when it cannot be read, or is larger than any that this
/// tool reads at once.
std::string read_input(const std::string& path);

/// The first line of a file, without white space at its end; empty when it cannot be read (errno
/// says why).
std::optional<std::string> first_line(const std::string& path);

/// What some editors put at the start of a file, unseen; the library takes it for text.
inline constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
[[nodiscard]] inline bool has_byte_order_mark(std::string_view text) {
    return text.substr(0, byte_order_mark.size()) == byte_order_mark;
}

/// A file in memory with `text`, at its start. Throws Failure.
eas::UniqueFd memory_file(const std::string& text);
/// The same as a stream.
eas::UniqueFile stream_of(const std::string& text);

}  // namespace easctl
