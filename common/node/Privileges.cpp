// The three privilege operations, by the saved-set-user-id mechanism of setresuid(2).
#include "common/node/Privileges.h"

#include <unistd.h>

namespace {

constexpr uid_t UNCHANGED = static_cast<uid_t>(-1);

}  // namespace

int drop_priv_temp(uid_t new_uid) {
    if (setresuid(UNCHANGED, new_uid, geteuid()) < 0)
        return -1;
    return geteuid() == new_uid ? 0 : -1;
}

int drop_priv_perm(uid_t new_uid) {
    uid_t real = UNCHANGED;
    uid_t effective = UNCHANGED;
    uid_t saved = UNCHANGED;
    if (setresuid(new_uid, new_uid, new_uid) < 0)
        return -1;
    if (getresuid(&real, &effective, &saved) < 0)
        return -1;
    return real == new_uid && effective == new_uid && saved == new_uid ? 0 : -1;
}

int restore_priv() {
    uid_t real = UNCHANGED;
    uid_t effective = UNCHANGED;
    uid_t saved = UNCHANGED;
    if (getresuid(&real, &effective, &saved) < 0)
        return -1;
    if (setresuid(UNCHANGED, saved, UNCHANGED) < 0)
        return -1;
    return geteuid() == saved ? 0 : -1;
}
