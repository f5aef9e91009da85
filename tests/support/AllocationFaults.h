// Fails the n-th allocation that a thread makes while it is watched, and counts the blocks of
// watched threads that are not freed. Linking it replaces malloc and its kin in the whole program;
// where a sanitizer has done so already, nothing is watched.
#pragma once

#include <functional>

namespace eas::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool allocations_are_watched = false;
#else
inline constexpr bool allocations_are_watched = true;
#endif

/// While it lives, the calling thread's allocations count.
class WatchAllocations {
  public:
    WatchAllocations();
    ~WatchAllocations();
    WatchAllocations(const WatchAllocations&) = delete;
    WatchAllocations& operator=(const WatchAllocations&) = delete;
};

/// Leaves out what the calling thread allocates between a +1 and a -1: it is somebody else's.
void watch_elsewhere(int step);

/// From here on the `n`-th watched allocation fails, and all later ones if `for_good`; 0: none.
void fail_allocation(long n, bool for_good);
/// Whether it came to that, also after a 0.
bool allocation_failed();

/// Has each allocation that `run` watches fail, one after the other, once and with all later ones.
/// How many failed; ends early when a test's expectation does.
long fail_each_allocation(const std::function<void()>& run);

/// Watched blocks that are not freed.
long live_blocks();

}  // namespace eas::test
