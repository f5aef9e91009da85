// The end of a forked process.
#pragma once

#include <sys/wait.h>

#include <cerrno>

namespace eas::test {

/// Waits for a child to end; its exit status, or 128 + the signal that ended it, as a shell has it.
inline int exit_status(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace eas::test
