#include "node/files/KeptFile.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "node/files/PseudoFile.h"

namespace eas::node {

const char* error_name(int error) noexcept {
    const char* const text = ::strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}

std::string why(std::string_view path, int error) {
    return std::string(path) + ": " + error_name(error);
}

std::string quoted(std::string_view text) {
    constexpr std::size_t longest = 40;
    std::string result = "\"";
    for (const char c : text.substr(0, longest))
        result += c >= ' ' && c <= '~' ? c : '?';
    return result + (text.size() > longest ? "...\"" : "\"");
}

KeptFile::KeptFile(std::string path) : path_(std::move(path)) {
    fd_.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    error_ = fd_.is_open() ? 0 : errno;
}

std::optional<std::string_view> KeptFile::read(Buffer& buffer) noexcept {
    if (!fd_.is_open())
        return std::nullopt;
    const ssize_t count = ::pread(fd_.get(), buffer.data(), buffer.size(), 0);
    said_.clear();
    error_ = count < 0 ? errno : EFBIG;
    if (count < 0 || static_cast<std::size_t>(count) == buffer.size())
        return std::nullopt;
    error_ = 0;
    return trimmed({buffer.data(), static_cast<std::size_t>(count)});
}

std::optional<std::uint64_t> KeptFile::number() {
    Buffer buffer;
    const auto text = read(buffer);
    if (!text)
        return std::nullopt;
    const auto value = parse_number(*text);
    if (!value || *value < 0) {
        said_ = quoted(*text);
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(*value);
}

std::string KeptFile::reason() const {
    return said_.empty() ? why(path_, error_) : path_ + " says " + said_;
}

}  // namespace eas::node
