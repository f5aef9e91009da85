// Lines of /proc/cpuinfo: "key<blanks>: value". Any thread; nothing is allocated.
#pragma once

#include <string_view>

namespace eas {

/// Whether `line` begins with `key`; "model" also matches "model name".
[[nodiscard]] bool has_key(std::string_view line, std::string_view key) noexcept;

/// The number behind `key`, only blanks and a colon between them ("model" does not read the
/// "model name" line). One beyond int is its nearest limit. False, with `value` unchanged: no colon
/// or no number.
bool parse_field(std::string_view line, std::string_view key, int& value) noexcept;

/// The number behind the first colon, whatever stands before it. Range and failure as above.
bool parse_after_colon(std::string_view line, int& value) noexcept;

/// The first word behind `key`, blanks and a colon; empty when there is none.
[[nodiscard]] std::string_view word_field(std::string_view line, std::string_view key) noexcept;

}  // namespace eas
