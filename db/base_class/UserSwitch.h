// The effective user of the process while a connection is opened, switched by the caller's
// functions.
#pragma once

#include <sys/types.h>

#include "base/ThreadSafety.h"

/// Switches to a user id / back; results are not looked at.
using seteuid_fcn = int (*)(unsigned int uid);
using unseteuid_fcn = int (*)();

namespace eas {

/// The id of the account `user` if a schema is given and the account exists, else the real user id.
[[nodiscard]] uid_t connecting_user(const char* user, const char* schema);

/// Calls `set` (if any) at once and `unset` (if any) once: by back(), or when an exception or the
/// cancellation of the thread leaves the block. The process has one effective user: where there is
/// something to call, other threads that would switch it wait meanwhile.
class UserSwitch {
  public:
    UserSwitch(seteuid_fcn set, unseteuid_fcn unset, const char* user, const char* schema);
    ~UserSwitch() { back(); }
    UserSwitch(const UserSwitch&) = delete;
    UserSwitch& operator=(const UserSwitch&) = delete;

    void back();
    /// Leaves the user as switched.
    void stay() noexcept EAS_NO_THREAD_SAFETY_ANALYSIS;

  private:
    // The lock is given back by another function than takes it.
    UserSwitch(bool calls, unseteuid_fcn unset) noexcept EAS_NO_THREAD_SAFETY_ANALYSIS;

    unseteuid_fcn unset_;
    bool switched_;
};

}  // namespace eas
