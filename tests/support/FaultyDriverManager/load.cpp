#include <dlfcn.h>

#include <stdexcept>

#include "tests/support/FaultyDriverManager/FaultyDriverManager.h"

namespace eas::test {

FaultyDriverManager& FaultyDriverManager::load() {
    void* library = ::dlopen(EAS_FAULTY_ODBC, RTLD_NOW | RTLD_GLOBAL);
    using Entry = FaultyDriverManager* (*)();
    const auto entry = library == nullptr
                           ? nullptr
                           : reinterpret_cast<Entry>(::dlsym(library, "faulty_driver_manager"));
    if (entry == nullptr)
        throw std::runtime_error(::dlerror());
    return *entry();
}

}  // namespace eas::test
