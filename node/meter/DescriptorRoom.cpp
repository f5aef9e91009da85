#include "node/meter/DescriptorRoom.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace eas::node {
namespace {

constexpr rlim_t per_cpu = 2;      // cycles and instructions
constexpr rlim_t elsewhere = 128;  // memory controllers, energy counters
constexpr rlim_t small_part = 4;   // of its limit a program does not miss this part

/// The lowest number for descriptors that are moved; 0: they are not.
thread_local int lowest_number = 0;

}  // namespace

DescriptorRoom::DescriptorRoom() noexcept {
    const long cpus = std::max(::sysconf(_SC_NPROCESSORS_ONLN), 1L);
    const rlim_t needed = per_cpu * static_cast<rlim_t>(cpus) + elsewhere;
    if (::getrlimit(RLIMIT_NOFILE, &before_) != 0 || needed <= before_.rlim_cur / small_part)
        return;
    raised_ = before_;
    raised_.rlim_cur = std::min(before_.rlim_cur + needed, before_.rlim_max);
    is_raised_ = raised_.rlim_cur > before_.rlim_cur && ::setrlimit(RLIMIT_NOFILE, &raised_) == 0;
    if (is_raised_)
        lowest_number = static_cast<int>(before_.rlim_cur);
}

DescriptorRoom::~DescriptorRoom() {
    lowest_number = 0;
    rlimit now{};
    // Another thread may have set a limit of its own meanwhile.
    if (is_raised_ && ::getrlimit(RLIMIT_NOFILE, &now) == 0 && now.rlim_cur == raised_.rlim_cur) {
        now.rlim_cur = before_.rlim_cur;
        ::setrlimit(RLIMIT_NOFILE, &now);
    }
}

UniqueFd DescriptorRoom::moved_up(UniqueFd fd) noexcept {
    if (!fd.is_open() || lowest_number == 0)
        return fd;
    const int before = errno;
    UniqueFd moved(::fcntl(fd.get(), F_DUPFD_CLOEXEC, lowest_number));
    errno = before;
    return moved.is_open() ? std::move(moved) : std::move(fd);
}

}  // namespace eas::node
