#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include <stdexcept>

namespace eas::test {

/// While it lives, this process can open `spare` more descriptors, whichever numbers are taken.
class DescriptorLimit {
  public:
    explicit DescriptorLimit(int spare) {
        if (::getrlimit(RLIMIT_NOFILE, &usual_) != 0)
            throw std::runtime_error("the descriptor limit cannot be read");
        rlimit tight = usual_;
        tight.rlim_cur = number_after(spare);
        set(tight);
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &usual_); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  private:
    /// The limit is one on numbers, and numbers inherited from the shell leave gaps.
    static rlim_t number_after(int spare) {
        int number = 0;
        for (int free = 0; free < spare; ++number)
            free += ::fcntl(number, F_GETFD) == -1 ? 1 : 0;
        return static_cast<rlim_t>(number);
    }
    static void set(const rlimit& limit) {
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
            throw std::runtime_error("the descriptor limit cannot be set");
    }

    rlimit usual_{};
};

}  // namespace eas::test
