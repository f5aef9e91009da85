#include <dlfcn.h>

#include "tests/support/ScriptedDriverManager/ScriptedDriverManager.h"

namespace eas::test {

ScriptedDriverManager* ScriptedDriverManager::load(const char* path) {
    void* library = ::dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr)
        return nullptr;
    using Entry = ScriptedDriverManager* (*)();
    const auto entry = reinterpret_cast<Entry>(::dlsym(library, "scripted_driver_manager"));
    return entry != nullptr ? entry() : nullptr;
}

}  // namespace eas::test
