#include "common/node/BinFile.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/UniqueFd.h"

int bin_read_file(const char* file, char* buf, int buf_len) {
    if (buf_len < 1)
        return 0;
    const eas::UniqueFd fd(::open(file, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 1)
        return 0;
    const ssize_t count = ::read(fd.get(), buf, static_cast<std::size_t>(buf_len - 1));
    if (count > 0)
        buf[count] = '\0';
    return static_cast<int>(count);
}

int bin_write_file(const char* file, const char* buf, int buf_len) {
    if (buf_len < 0)
        return 0;
    const eas::UniqueFd fd(::open(file, O_WRONLY | O_CLOEXEC));
    if (fd.get() < 1)
        return 0;
    return static_cast<int>(::write(fd.get(), buf, static_cast<std::size_t>(buf_len)));
}
