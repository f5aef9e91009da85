// What went wrong and where, on its way to the caller.
#pragma once

#include <cerrno>
#include <string>
#include <utility>

#include "node/node.h"

namespace eas::node {

struct Problem {
    int code = EASNODE_OK;
    int cpu = -1;
    int error = 0;
    std::string path;
    std::string text;
};

/// Whether the kernel refused for want of a privilege, or because /sys is read-only here.
[[nodiscard]] inline bool is_denial(int error) noexcept {
    return error == EACCES || error == EPERM || error == EROFS;
}

/// A file that could not be read or written: `error` is its errno.
[[nodiscard]] inline Problem file_problem(int cpu, std::string path, int error, std::string text) {
    return {is_denial(error) ? EASNODE_DENIED : EASNODE_NOT_TAKEN, cpu, error, std::move(path),
            std::move(text)};
}

}  // namespace eas::node
