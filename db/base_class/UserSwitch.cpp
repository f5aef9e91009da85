#include "db/base_class/UserSwitch.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace eas {

uid_t connecting_user(const char* user, const char* schema) {
    if (user == nullptr || schema == nullptr)
        return ::getuid();
    passwd account{};
    passwd* found = nullptr;
    std::vector<char> texts(1024);
    while (::getpwnam_r(user, &account, texts.data(), texts.size(), &found) == ERANGE)
        texts.resize(texts.size() * 2);
    return found != nullptr ? account.pw_uid : ::getuid();
}

UserSwitch::UserSwitch(seteuid_fcn set, unseteuid_fcn unset, const char* user, const char* schema)
    : unset_(unset) {
    if (set != nullptr)
        set(connecting_user(user, schema));
}

}  // namespace eas
