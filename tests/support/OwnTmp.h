// A /tmp that is the calling process's own, for what lies there under a fixed name.
#pragma once

#include <sched.h>
#include <sys/mount.h>

namespace eas::test {

/// Puts it there, with a tmpfs's `options`; false: this process may not.
inline bool own_tmp(const char* options = nullptr) {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/tmp", "tmpfs", 0, options) == 0;
}

}  // namespace eas::test
