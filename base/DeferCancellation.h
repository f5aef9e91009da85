// Lets a block run to its end although its thread is being cancelled; costs no system call.
#pragma once

#include <pthread.h>

namespace eas {

/// The cancellation acts at the caller's next cancellation point after the block. Wanted where
/// destructors close descriptors: close(2) is such a point, and a destructor must not unwind.
class DeferCancellation {
  public:
    DeferCancellation() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_); }
    ~DeferCancellation() { pthread_setcancelstate(old_state_, nullptr); }
    DeferCancellation(const DeferCancellation&) = delete;
    DeferCancellation& operator=(const DeferCancellation&) = delete;

  private:
    int old_state_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace eas
