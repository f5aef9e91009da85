// ACPI tables of every length, in a file of memory as sysfs serves them.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "base/UniqueFd.h"
#include "common/node/MemoryChannels.h"
#include "fuzz/Fuzz.h"

using eas::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t base_offset = 44;
    static const eas::UniqueFd table(::memfd_create("MCFG", MFD_CLOEXEC));
    check(::ftruncate(table.get(), 0) == 0 &&
              ::pwrite(table.get(), data, size, 0) == static_cast<ssize_t>(size),
          "the table is served");
    std::uint64_t base = 0;
    const bool found = eas::read_config_base(table.get(), base);
    check(found == (size >= base_offset + sizeof base), "found when the table is long enough");
    check(!found || std::memcmp(&base, data + base_offset, sizeof base) == 0, "as it stands there");
    return 0;
}
