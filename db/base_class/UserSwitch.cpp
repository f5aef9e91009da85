#include "db/base_class/UserSwitch.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "base/ThreadSafety.h"

namespace eas {
namespace {

Mutex process_user;  // held while it is switched

}  // namespace

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

UserSwitch::UserSwitch(bool calls, unseteuid_fcn unset) noexcept : unset_(unset), switched_(calls) {
    if (switched_)
        process_user.lock();
}

// The destructor runs from here on, also when the rest is left by an exception.
UserSwitch::UserSwitch(seteuid_fcn set, unseteuid_fcn unset, const char* user, const char* schema)
    : UserSwitch(set != nullptr || unset != nullptr, unset) {
    if (set != nullptr)
        set(connecting_user(user, schema));
}

void UserSwitch::back() {
    const unseteuid_fcn unset = std::exchange(unset_, nullptr);
    if (unset != nullptr)
        unset();
    stay();
}

void UserSwitch::stay() noexcept {
    unset_ = nullptr;
    if (std::exchange(switched_, false))
        process_user.unlock();
}

}  // namespace eas
