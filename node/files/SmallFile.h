// The kernel's small files: one text each, read whole. A text counts only when all of it was read
// and all of it was understood. Any thread may use its own.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/UniqueFd.h"

namespace eas::node {

/// What reading gave: a text without trailing newlines, blanks and NULs, or an error of errno(3).
struct FileText {
    std::string text;
    int error = 0;  ///< 0: the text counts

    [[nodiscard]] bool good() const noexcept { return error == 0; }
};

/// Reads a file to its end. Longer ones than a MiB are refused with EFBIG.
[[nodiscard]] FileText read_file(const std::string& path);

/// Reads at most `bytes` of a file, from its beginning.
[[nodiscard]] FileText read_beginning(const std::string& path, std::size_t bytes);

/// The names in a directory but "." and "..", sorted; empty where it cannot be read, `error` (if
/// not null) then is its errno, else 0.
[[nodiscard]] std::vector<std::string> list_directory(const std::string& path,
                                                      int* error = nullptr);

/// The whole of `text` as a decimal number without sign; null when it is anything else.
[[nodiscard]] std::optional<std::uint64_t> parse_number(std::string_view text) noexcept;

/// The same with hexadecimal digits, "0x" in front or not.
[[nodiscard]] std::optional<std::uint64_t> parse_hexadecimal(std::string_view text) noexcept;

/// A decimal number that may have a sign, a fraction and an exponent, in any locale.
[[nodiscard]] std::optional<double> parse_decimal(std::string_view text) noexcept;

/// A number from a file; null where it cannot be read or holds something else.
[[nodiscard]] std::optional<std::uint64_t> read_number(const std::string& path);

/// `text` without white space and NULs at either end.
[[nodiscard]] std::string_view trimmed(std::string_view text) noexcept;

/// "PATH: Permission denied", in English whatever the locale.
[[nodiscard]] std::string why(std::string_view path, int error);

/// The English text of an errno.
[[nodiscard]] const char* error_name(int error) noexcept;

/// A file that is kept open, so that reading it anew costs one system call.
class KeptFile {
  public:
    /// Not open after a failure; `error()` then says why.
    explicit KeptFile(std::string path);

    [[nodiscard]] bool is_open() const noexcept { return fd_.is_open(); }
    [[nodiscard]] int error() const noexcept { return error_; }
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] int descriptor() const noexcept { return fd_.get(); }

    using Buffer = std::array<char, 8192>;
    /// The text now, in `buffer`, without what trails it. Null after a failure, with its errno in
    /// `error()`: of reading, or EFBIG for a text that does not fit.
    [[nodiscard]] std::optional<std::string_view> read(Buffer& buffer) noexcept;

    /// The text as a number. Null after a failure, with `error()` EINVAL when it is none.
    [[nodiscard]] std::optional<std::uint64_t> number() noexcept;

    /// Why the last reading gave no value.
    [[nodiscard]] std::string reason() const;

  private:
    std::string path_;
    UniqueFd fd_;
    int error_ = 0;
};

}  // namespace eas::node
