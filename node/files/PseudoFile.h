// The door to /sys and /proc: whole small files in, one short text out, the reason of a failure
// kept. Nothing is cached; any thread may call.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace eas::node {

/// What a file said, or why it said nothing.
struct FileText {
    std::string text;  // without the ends of line and NULs at its end; empty after a failure
    int error = 0;     // errno; 0 when the file was read to its end

    [[nodiscard]] bool good() const noexcept { return error == 0; }
};

/// Files of the kernel end by themselves; one that does not is refused (EFBIG).
constexpr std::size_t kLargestFile = std::size_t{16} << 20;

[[nodiscard]] FileText read_text(const std::string& path);

/// Writes `text` by one write(2), as attributes want it. 0 or errno.
[[nodiscard]] int write_text(const std::string& path, std::string_view text);

/// The names in a folder, sorted; empty when there is none, with the reason in `*error` if asked.
[[nodiscard]] std::vector<std::string> names_in(const std::string& folder, int* error = nullptr);

/// `text` without the blanks, ends of line and NULs around it.
[[nodiscard]] std::string_view trimmed(std::string_view text) noexcept;

/// The whole text as a decimal number: blanks around it are allowed, anything else is not.
[[nodiscard]] std::optional<long long> parse_number(std::string_view text) noexcept;

/// A file that holds one number; no value when it cannot be read or holds something else.
[[nodiscard]] std::optional<long long> read_number(const std::string& path);

/// The words of a text, parted by blanks.
[[nodiscard]] std::vector<std::string> words_of(std::string_view text);

}  // namespace eas::node
