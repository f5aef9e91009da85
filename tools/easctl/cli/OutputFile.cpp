#include "tools/easctl/cli/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "base/UniqueFd.h"
#include "tools/easctl/cli/Errors.h"

namespace easctl {
namespace {

namespace fs = std::filesystem;

bool write_all(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
}

/// What a new file would get.
mode_t default_mode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
    throw Failure(ExitCode::found, path + ": " + what + ": " + std::strerror(errno));
}

/// What is at `path` already, open for writing; through a link it is made where there is nothing.
/// The kernel follows the link, with its own care about those in folders that all may write.
eas::UniqueFd open_present(const std::string& path) {
    std::error_code none;
    const int make = fs::is_symlink(path, none) ? O_CREAT : 0;
    eas::UniqueFd present(::open(path.c_str(), O_WRONLY | O_CLOEXEC | make, 0666));
    if (!present.is_open() && errno != ENOENT)
        refuse(path, "cannot be written");
    return present;
}

/// Writes, and hands owner and mode of an earlier file on; false with errno.
bool complete(int file, const std::string& text, const struct stat* earlier) {
    return (earlier == nullptr || ::fchown(file, earlier->st_uid, earlier->st_gid) == 0) &&
           write_all(file, text) &&
           ::fchmod(file, earlier == nullptr ? default_mode() : earlier->st_mode & 07777) == 0 &&
           ::fsync(file) == 0;
}

/// Puts `text` in the place of `target`, which is no link; false with errno.
bool replace(const std::string& target, const std::string& text, const struct stat* earlier) {
    std::string beside = target + ".XXXXXX";
    const eas::UniqueFd file(::mkostemp(beside.data(), O_CLOEXEC));
    if (!file.is_open())
        return false;
    if (!complete(file.get(), text, earlier) || ::rename(beside.c_str(), target.c_str()) != 0) {
        const int error = errno;
        ::unlink(beside.c_str());
        errno = error;
        return false;
    }
    // The name is made to last, too, as far as the folder may be opened.
    const fs::path folder = fs::path(target).parent_path();
    const eas::UniqueFd opened(
        ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.is_open())
        ::fsync(opened.get());
    return true;
}

/// Whether a file that cannot be replaced may still be written: its folder, its owner or a mount
/// on it forbade the former.
bool only_replacing_failed() {
    return errno == EACCES || errno == EPERM || errno == EROFS || errno == EBUSY;
}

}  // namespace

void write_file(const std::string& path, const std::string& text) {
    const eas::UniqueFd present = open_present(path);
    if (!present.is_open()) {
        if (!replace(path, text, nullptr))
            refuse(path, "cannot be made");
        return;
    }
    struct stat status {};
    const bool plain = ::fstat(present.get(), &status) == 0 && S_ISREG(status.st_mode);
    if (plain) {
        if (replace(fs::canonical(path), text, &status))
            return;
        if (!only_replacing_failed() || ::ftruncate(present.get(), 0) != 0)
            refuse(path, "cannot be written");
    }
    if (!write_all(present.get(), text) || (plain && ::fsync(present.get()) != 0))
        refuse(path, "cannot be written");
}

}  // namespace easctl
