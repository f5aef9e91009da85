// Guards of the calling thread's cancellation state: at the end of their block it is what it was.
// They cost no system call.
#pragma once

#include <pthread.h>

namespace eas {

class CancelState {
  public:
    /// `state` is PTHREAD_CANCEL_ENABLE or PTHREAD_CANCEL_DISABLE.
    explicit CancelState(int state) noexcept : error_(pthread_setcancelstate(state, &earlier_)) {}
    ~CancelState() { restore(); }
    CancelState(const CancelState&) = delete;
    CancelState& operator=(const CancelState&) = delete;

    /// 0, or the error number of the change.
    [[nodiscard]] int error() const noexcept { return error_; }

    /// Puts the earlier state back before the end of the block. Returns 0 or the error number.
    int restore() noexcept { return pthread_setcancelstate(earlier_, nullptr); }

  private:
    int earlier_ = PTHREAD_CANCEL_ENABLE;
    int error_;
};

/// Lets a block run to its end although its thread is being cancelled: that acts at the caller's
/// next cancellation point. Wanted where destructors close descriptors: close(2) is such a point,
/// and a destructor must not unwind.
class DeferCancellation {
  public:
    DeferCancellation() noexcept = default;

  private:
    CancelState uncancelled_{PTHREAD_CANCEL_DISABLE};
};

}  // namespace eas
