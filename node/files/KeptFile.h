// A small file of the kernel that is kept open, so that reading it anew costs one system call. Any
// thread may use its own.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/UniqueFd.h"

namespace eas::node {

/// The English text of an errno, whatever the locale.
[[nodiscard]] const char* error_name(int error) noexcept;

/// "PATH: Permission denied".
[[nodiscard]] std::string why(std::string_view path, int error);

/// The beginning of a text that somebody else wrote, in quotes, fit for a message.
[[nodiscard]] std::string quoted(std::string_view text);

class KeptFile {
  public:
    /// Not open after a failure; reason() then says why.
    explicit KeptFile(std::string path);

    [[nodiscard]] bool is_open() const noexcept { return fd_.is_open(); }
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] const UniqueFd& descriptor() const noexcept { return fd_; }

    using Buffer = std::array<char, 8192>;
    /// The text now, in `buffer`, without the blanks and NULs around it. No value after a failure,
    /// also for a text that does not fit.
    [[nodiscard]] std::optional<std::string_view> read(Buffer& buffer) noexcept;

    /// The text as a decimal number without sign. No value when it is anything else.
    [[nodiscard]] std::optional<std::uint64_t> number();

    /// Why there was no value, with the path.
    [[nodiscard]] std::string reason() const;

  private:
    std::string path_;
    UniqueFd fd_;
    int error_ = 0;     // errno
    std::string said_;  // what stood there instead of a number; empty: a number, or none was read
};

}  // namespace eas::node
