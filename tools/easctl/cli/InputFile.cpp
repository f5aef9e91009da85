#include "tools/easctl/cli/InputFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/easctl/cli/Errors.h"

namespace easctl {
namespace {

constexpr std::size_t largest = std::size_t{16} * 1024 * 1024;  // a row takes some 100 bytes

[[noreturn]] void cannot_read(const std::string& path) {
    throw Failure(ExitCode::input, path + ": " + std::strerror(errno));
}

[[noreturn]] void no_memory() {
    throw Failure(ExitCode::found, std::string("no memory for a file: ") + std::strerror(errno));
}

}  // namespace

eas::UniqueFd open_input(const std::string& path) {
    eas::UniqueFd file(path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                   : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.is_open())
        cannot_read(path);
    return file;
}

std::string read_input(const std::string& path) {
    const eas::UniqueFd file = open_input(path);
    std::string text;
    std::vector<char> block(std::size_t{64} * 1024);
    for (ssize_t got = 1; got != 0 && text.size() <= largest;) {
        got = ::read(file.get(), block.data(), block.size());
        if (got > 0)
            text.append(block.data(), static_cast<std::size_t>(got));
        else if (got < 0 && errno != EINTR)
            cannot_read(path);
    }
    if (text.size() > largest)
        throw Failure(ExitCode::input, path + ": larger than 16 MiB, which is no such file");
    return text;
}

std::optional<std::string> first_line(const std::string& path) {
    const eas::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> text{};
    const ssize_t length = file.is_open() ? ::read(file.get(), text.data(), text.size()) : -1;
    if (length < 0)
        return std::nullopt;
    std::string line(text.data(), static_cast<std::size_t>(length));
    line.erase(std::min(line.find('\n'), line.size()));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    return line;
}

eas::UniqueFd memory_file(const std::string& text) {
    eas::UniqueFd file(::memfd_create("easctl", MFD_CLOEXEC));
    if (!file.is_open() ||
        ::pwrite(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        no_memory();
    return file;
}

eas::UniqueFile stream_of(const std::string& text) {
    eas::UniqueFd file = memory_file(text);
    eas::UniqueFile stream(::fdopen(file.get(), "r"));
    if (!stream)
        no_memory();
    static_cast<void>(file.release());
    return stream;
}

}  // namespace easctl
