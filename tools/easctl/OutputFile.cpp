#include "tools/easctl/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/UniqueFd.h"
#include "tools/easctl/Errors.h"

namespace easctl {
namespace {

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

}  // namespace

void write_file(const std::string& path, const std::string& text) {
    const auto refuse = [&](const std::string& what) {
        throw Failure(ExitCode::input, path + ": " + what + ": " + std::strerror(errno));
    };
    struct stat present {};
    if (::stat(path.c_str(), &present) == 0 && !S_ISREG(present.st_mode)) {
        const eas::UniqueFd device(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (device.get() < 0 || !write_all(device.get(), text))
            refuse("cannot be written");
        return;
    }
    std::string beside = path + ".XXXXXX";
    const eas::UniqueFd file(::mkostemp(beside.data(), O_CLOEXEC));
    if (file.get() < 0)
        refuse("cannot be made");
    if (!write_all(file.get(), text) || ::fchmod(file.get(), default_mode()) != 0 ||
        ::fsync(file.get()) != 0 || ::rename(beside.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(beside.c_str());
        errno = error;
        refuse("cannot be written");
    }
}

}  // namespace easctl
