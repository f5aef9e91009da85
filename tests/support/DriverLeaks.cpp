#include "tests/support/DriverLeaks.h"

#include <dlfcn.h>
#include <link.h>

#include <cstring>
#include <string>
#include <vector>

// Read by the leak checker when there is one: the drivers, and the reader of odbc.ini, which never
// frees what it remembers. A leak of ours has no frame of these modules.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
    return "leak:libsqlite3odbc\nleak:libmaodbc\nleak:libodbcinst\n";
}

extern "C" __attribute__((weak)) void __lsan_disable();

namespace eas::test {
namespace {

int add_odbc_module(dl_phdr_info* module, std::size_t, void* paths) {
    if (std::strstr(module->dlpi_name, "odbc") != nullptr) {
        static_cast<std::vector<std::string>*>(paths)->emplace_back(module->dlpi_name);
    }
    return 0;
}

}  // namespace

void keep_drivers_mapped() {
    if (&__lsan_disable == nullptr)
        return;
    std::vector<std::string> paths;
    ::dl_iterate_phdr(&add_odbc_module, &paths);
    for (const std::string& path : paths)
        ::dlopen(path.c_str(), RTLD_LAZY | RTLD_NODELETE);
}

}  // namespace eas::test
