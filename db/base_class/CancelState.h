// Owner of the calling thread's cancellation state: what was set is put back at the end of the
// block.
#pragma once

#include <pthread.h>

namespace eas {

class CancelState {
  public:
    /// `state` is PTHREAD_CANCEL_ENABLE or PTHREAD_CANCEL_DISABLE.
    explicit CancelState(int state) : error_(pthread_setcancelstate(state, &earlier_)) {}
    ~CancelState() { restore(); }
    CancelState(const CancelState&) = delete;
    CancelState& operator=(const CancelState&) = delete;

    /// 0, or the error number of the change; after an error there is nothing to put back.
    [[nodiscard]] int error() const noexcept { return error_; }

    /// Puts the earlier state back, once. Returns 0 or the error number.
    int restore() {
        if (error_ != 0 || restored_)
            return 0;
        restored_ = true;
        return pthread_setcancelstate(earlier_, nullptr);
    }

  private:
    int earlier_ = PTHREAD_CANCEL_ENABLE;
    int error_;
    bool restored_ = false;
};

}  // namespace eas
