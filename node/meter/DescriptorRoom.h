// Room for some hundred descriptors beside those of the program: a node has more CPUs than many a
// limit has descriptors. One at a time in a thread.
#pragma once

#include <sys/resource.h>

#include "base/UniqueFd.h"

namespace eas::node {

/// For the length of a block the soft limit of open files is higher, where that is needed and
/// allowed, and moved_up() gives descriptors numbers above the program's own limit. They stay
/// usable when the limit is back.
class DescriptorRoom {
  public:
    DescriptorRoom() noexcept;
    ~DescriptorRoom();
    DescriptorRoom(const DescriptorRoom&) = delete;
    DescriptorRoom& operator=(const DescriptorRoom&) = delete;

    /// `fd` under a number of the room that this thread has open, else as it is; errno stays.
    [[nodiscard]] static UniqueFd moved_up(UniqueFd fd) noexcept;

  private:
    rlimit before_{};
    rlimit raised_{};
    bool is_raised_ = false;
};

}  // namespace eas::node
