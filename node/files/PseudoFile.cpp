#include "node/files/PseudoFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>

#include "base/Numbers.h"
#include "base/UniqueFd.h"

namespace eas::node {
namespace {

struct FolderCloser {
    void operator()(DIR* folder) const noexcept {
        const DeferCancellation until_closed;
        ::closedir(folder);
    }
};
using UniqueFolder = std::unique_ptr<DIR, FolderCloser>;

}  // namespace

FileText read_text(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!file.is_open())
        return {{}, errno};
    FileText result;
    std::array<char, 4096> page;
    for (;;) {
        const ssize_t got = ::read(file.get(), page.data(), page.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 || result.text.size() > kLargestFile)
            return {{}, got < 0 ? errno : EFBIG};
        if (got == 0)
            break;
        result.text.append(page.data(), static_cast<std::size_t>(got));
    }
    // Some drivers pad their page with NULs.
    while (!result.text.empty() && (result.text.back() == '\n' || result.text.back() == '\0'))
        result.text.pop_back();
    return result;
}

int write_text(const std::string& path, std::string_view text) {
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.is_open())
        return errno;
    ssize_t put = 0;
    do {
        put = ::write(file.get(), text.data(), text.size());
    } while (put < 0 && errno == EINTR);
    if (put < 0)
        return errno;
    return static_cast<std::size_t>(put) == text.size() ? 0 : EIO;
}

std::vector<std::string> names_in(const std::string& folder, int* error) {
    std::vector<std::string> names;
    const UniqueFolder open(::opendir(folder.c_str()));
    if (error != nullptr)
        *error = open == nullptr ? errno : 0;
    if (open == nullptr)
        return names;
    while (const dirent* entry = ::readdir(open.get()))
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

std::string_view trimmed(std::string_view text) noexcept {
    const auto is_padding = [](char c) { return is_space(c) || c == '\0'; };
    while (!text.empty() && is_padding(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && is_padding(text.back()))
        text.remove_suffix(1);
    return text;
}

std::optional<long long> parse_number(std::string_view text) noexcept {
    text = trimmed(text);
    long long number = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (problem != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

std::optional<long long> read_number(const std::string& path) {
    const FileText file = read_text(path);
    return file.good() ? parse_number(file.text) : std::nullopt;
}

std::vector<std::string> words_of(std::string_view text) {
    std::vector<std::string> words;
    for (text = trimmed(text); !text.empty(); text = trimmed(text)) {
        const auto end = std::find_if(text.begin(), text.end(), is_space);
        words.emplace_back(text.begin(), end);
        text.remove_prefix(static_cast<std::size_t>(end - text.begin()));
    }
    return words;
}

}  // namespace eas::node
