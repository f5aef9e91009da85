// Owner of a file descriptor. Any thread may use its own; an instance is not shared.
#pragma once

#include <unistd.h>

#include <utility>

#include "base/CancelState.h"

namespace eas {

class UniqueFd {
  public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool is_open() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes what is held, if anything, and takes over `fd`.
    void reset(int fd = -1) noexcept {
        const int old = std::exchange(fd_, fd);
        if (old < 0)
            return;
        const DeferCancellation until_closed;
        ::close(old);
    }

  private:
    int fd_ = -1;
};

}  // namespace eas
