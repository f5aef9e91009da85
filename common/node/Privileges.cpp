// The three privilege operations, by the saved-set-user-id mechanism of setresuid(2).
#include "common/node/Privileges.h"

#include <unistd.h>

namespace {

constexpr uid_t unchanged = static_cast<uid_t>(-1);

}  // namespace

int drop_priv_temp(uid_t new_uid) {
    if (setresuid(unchanged, new_uid, geteuid()) < 0)
        return -1;
    return geteuid() == new_uid ? 0 : -1;
}

int drop_priv_perm(uid_t new_uid) {
    uid_t real = unchanged;
    uid_t effective = unchanged;
    uid_t saved = unchanged;
    if (setresuid(new_uid, new_uid, new_uid) < 0)
        return -1;
    if (getresuid(&real, &effective, &saved) < 0)
        return -1;
    return real == new_uid && effective == new_uid && saved == new_uid ? 0 : -1;
}

int restore_priv() {
    uid_t real = unchanged;
    uid_t effective = unchanged;
    uid_t saved = unchanged;
    if (getresuid(&real, &effective, &saved) < 0)
        return -1;
    if (setresuid(unchanged, saved, unchanged) < 0)
        return -1;
    return geteuid() == saved ? 0 : -1;
}
