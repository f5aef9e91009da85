// A call of Slurm's sacct for a period, without a shell; its output is read as it comes.
#pragma once

#include <sys/types.h>

#include "base/UniqueFd.h"

namespace easctl {

class SacctCall {
  public:
    /// Starts it for the jobs that were there between two times (s since 1970, UTC), of all users.
    /// A call that takes longer than ten minutes is ended. Throws Failure when it cannot be
    /// started.
    SacctCall(double from, double to);
    /// Ends it, when it still runs.
    ~SacctCall();
    SacctCall(const SacctCall&) = delete;
    SacctCall& operator=(const SacctCall&) = delete;

    /// The end to read from; once.
    [[nodiscard]] eas::UniqueFd take_output() { return std::move(output_); }
    /// Waits for its end. Throws Failure unless it was a success.
    void finish();

  private:
    eas::UniqueFd output_;
    pid_t child_ = -1;
};

}  // namespace easctl
