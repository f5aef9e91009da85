#include "tools/easctl/node/MemoryLink.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"
#include "common/node/MemoryChannels.h"
#include "common/node/ProcessorModel.h"

namespace easctl {
namespace {

Link broken(LinkStatus status, const std::string& found, const std::string& remedy) {
    return {"memory counters", status, found, "no memory traffic: a job cannot be measured",
            remedy};
}

Link broken(const std::string& path, int error, const std::string& when_denied,
            const std::string& when_missing) {
    const LinkStatus status = status_of(error);
    return broken(status, path + ": " + std::strerror(error),
                  status == LinkStatus::denied ? when_denied : when_missing);
}

/// Models whose counters are registers: those of each socket's first CPU are used.
Link by_registers(const cpuinfo_t& processors) {
    for (int s = 0; s < processors.numSockets; ++s) {
        const int cpu = processors.cpuId[processors.SId[s]];
        const std::string path = "/dev/cpu/" + std::to_string(std::max(0, cpu)) + "/msr";
        const eas::UniqueFd device(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!device.is_open())
            return broken(path, errno, "run as root (secure boot may lock registers)",
                          "modprobe msr");
    }
    return {"memory counters", LinkStatus::ok, "registers of each socket", "", ""};
}

/// Models whose counters are pages of the memory controllers.
Link by_physical_memory() {
    struct File {
        const char* path;
        int flags;
        const char* when_missing;
    };
    static constexpr std::array files{
        File{"/dev/mem", O_RDWR, "mknod -m 640 /dev/mem c 1 1, on a kernel with CONFIG_DEVMEM"},
        File{"/sys/firmware/acpi/tables/MCFG", O_RDONLY,
             "enable ACPI and memory-mapped PCI configuration in the firmware"},
    };
    const std::string when_denied =
        "run as root; where the kernel forbids it to root as well: no secure boot, iomem=relaxed";
    for (const File& one : files) {
        const eas::UniqueFd file(::open(one.path, one.flags | O_CLOEXEC));
        if (!file.is_open())
            return broken(one.path, errno, when_denied, one.when_missing);
    }
    // A kernel that is locked down opens the device and refuses to map it. One page tells.
    int fd = -1;
    errno = 0;
    char* page = mmap_memory_channel(127, 16, 4, &fd);
    const int error = errno != 0 ? errno : ENODATA;
    const eas::UniqueFd memory(fd);
    if (page == MAP_FAILED)
        return broken("a page of the memory controller", error, when_denied,
                      "enable memory-mapped PCI configuration in the firmware");
    ::munmap(page, CHANNEL_PAGE_SIZE);
    return {"memory counters", LinkStatus::ok, "the memory controllers can be mapped", "", ""};
}

}  // namespace

Link examine_memory_counters(const cpuinfo_t& processors) {
    switch (eas::memory_method(processors.model)) {
        case eas::MemoryMethod::uncore_msrs:
        case eas::MemoryMethod::uncore_boxes:
            return by_registers(processors);
        case eas::MemoryMethod::memory_channels:
            return by_physical_memory();
        case eas::MemoryMethod::none:
            break;
    }
    std::vector<std::string> models;
    for (const eas::ProcessorModel& model : eas::processor_models) {
        if (model.memory != eas::MemoryMethod::none)
            models.push_back(std::to_string(model.model));
    }
    const int model = processors.model;
    return broken(LinkStatus::missing,
                  "the library knows none of " +
                      (model > 0 ? "model " + std::to_string(model) : "this processor"),
                  "calibrate and measure on a node whose model is one of " + joined(models));
}

}  // namespace easctl
