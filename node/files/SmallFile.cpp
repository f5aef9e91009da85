#include "node/files/SmallFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>

namespace eas::node {
namespace {

constexpr std::size_t longest_file = std::size_t{1} << 20;

struct DirectoryCloser {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

/// A whole text as a number in a base; no sign, no white space.
std::optional<std::uint64_t> whole_number(std::string_view text, int base) noexcept {
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc{} || rest != end)
        return std::nullopt;
    return value;
}

}  // namespace

FileText read_beginning(const std::string& path, std::size_t bytes) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.is_open())
        return {{}, errno};
    FileText result;
    KeptFile::Buffer part;
    while (result.text.size() < bytes) {
        const std::size_t wanted = std::min(part.size(), bytes - result.text.size());
        const ssize_t count = ::read(fd.get(), part.data(), wanted);
        if (count < 0)
            return {{}, errno};
        if (count == 0)
            break;
        result.text.append(part.data(), static_cast<std::size_t>(count));
    }
    return result;
}

FileText read_file(const std::string& path) {
    FileText file = read_beginning(path, longest_file + 1);
    if (file.text.size() > longest_file)
        return {{}, EFBIG};
    while (!file.text.empty() && std::strchr(" \t\n", file.text.back()) != nullptr)
        file.text.pop_back();  // NUL is found at the end of that string, too
    return file;
}

std::vector<std::string> list_directory(const std::string& path, int* error) {
    const std::unique_ptr<DIR, DirectoryCloser> directory(::opendir(path.c_str()));
    if (error != nullptr)
        *error = directory == nullptr ? errno : 0;
    std::vector<std::string> names;
    if (directory == nullptr)
        return names;
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::uint64_t> parse_number(std::string_view text) noexcept {
    return whole_number(text, 10);
}

std::optional<std::uint64_t> parse_hexadecimal(std::string_view text) noexcept {
    if (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X")
        text.remove_prefix(2);
    return whole_number(text, 16);
}

std::optional<double> parse_decimal(std::string_view text) noexcept {
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || rest != end || !std::isfinite(value))
        return std::nullopt;
    return value;
}

std::optional<std::uint64_t> read_number(const std::string& path) {
    const FileText file = read_file(path);
    return file.good() ? parse_number(file.text) : std::nullopt;
}

std::string_view trimmed(std::string_view text) noexcept {
    constexpr std::string_view space(" \t\n\r\0", 5);
    const std::size_t first = text.find_first_not_of(space);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

const char* error_name(int error) noexcept {
    const char* const text = ::strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}

std::string why(std::string_view path, int error) {
    std::string text(path);
    text += ": ";
    text += error_name(error);
    return text;
}

KeptFile::KeptFile(std::string path) : path_(std::move(path)) {
    fd_.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    error_ = fd_.is_open() ? 0 : errno;
}

std::optional<std::string_view> KeptFile::read(Buffer& buffer) noexcept {
    if (!fd_.is_open())
        return std::nullopt;
    const ssize_t count = ::pread(fd_.get(), buffer.data(), buffer.size(), 0);
    if (count < 0) {
        error_ = errno;
        return std::nullopt;
    }
    if (static_cast<std::size_t>(count) == buffer.size()) {
        error_ = EFBIG;
        return std::nullopt;
    }
    error_ = 0;
    return trimmed({buffer.data(), static_cast<std::size_t>(count)});
}

std::optional<std::uint64_t> KeptFile::number() noexcept {
    Buffer buffer;
    const auto text = read(buffer);
    if (!text)
        return std::nullopt;
    const auto value = parse_number(*text);
    if (!value)
        error_ = EINVAL;
    return value;
}

std::string KeptFile::reason() const {
    return error_ == EINVAL ? path_ + ": not a number" : why(path_, error_);
}

}  // namespace eas::node
