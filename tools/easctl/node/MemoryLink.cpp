#include "tools/easctl/node/MemoryLink.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/UniqueFd.h"
#include "common/node/MemoryChannels.h"
#include "common/node/Msr.h"
#include "common/node/ProcessorModel.h"
#include "common/node/UncoreMsrCounters.h"

namespace easctl {
namespace {

constexpr std::uint16_t intel = 0x8086;

Link broken(LinkStatus status, const std::string& found, const std::string& remedy) {
    return {"memory counters", status, found, "gethwrusage counts no memory traffic", remedy};
}

Link broken(const std::string& path, int error, const std::string& when_denied,
            const std::string& when_missing) {
    const LinkStatus status = status_of(error);
    return broken(status, path + ": " + std::strerror(error),
                  status == LinkStatus::denied ? when_denied : when_missing);
}

std::string hex(std::uint32_t number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%X", number);
    return text.data();
}

/// The first CPU of each socket.
std::vector<int> first_cpus(const cpuinfo_t& processors) {
    std::vector<int> cpus;
    for (int s = 0; s < processors.numSockets; ++s)
        cpus.push_back(std::max(0, processors.cpuId[processors.SId[s]]));
    return cpus;
}

/// Writes what stands there already: a kernel may let registers be read only.
Link by_registers(const cpuinfo_t& processors, eas::MemoryMethod method) {
    const std::uint32_t control = eas::global_control(method);
    for (const int cpu : first_cpus(processors)) {
        const std::string device = "/dev/cpu/" + std::to_string(cpu) + "/msr";
        std::uint64_t value = 0;
        errno = 0;
        if (rdmsr(cpu, control, &value) != 0 || wrmsr(cpu, control, value) != 0)
            return broken(device + ", register " + hex(control), errno != 0 ? errno : EIO,
                          "run as root; secure boot and msr.allow_writes=off lock registers",
                          "modprobe msr");
    }
    return {"memory counters", LinkStatus::ok, "registers of each socket can be written", "", ""};
}

/// The files behind the pages: which of them is in the way tells more than a failed mapping.
Link examine_files(const std::string& when_denied) {
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
    for (const File& one : files) {
        const eas::UniqueFd file(::open(one.path, one.flags | O_CLOEXEC));
        if (!file.is_open())
            return broken(one.path, errno, when_denied, one.when_missing);
    }
    return {"memory counters", LinkStatus::ok, "", "", ""};
}

/// Models whose counters are pages of the memory controllers. A kernel that is locked down opens
/// the device and refuses to map it; where firmware has numbered the buses otherwise, the page is
/// another device's, or none.
Link by_physical_memory(const cpuinfo_t& processors) {
    const std::string when_denied =
        "run as root; where the kernel forbids it to root as well: no secure boot, iomem=relaxed";
    if (const Link files = examine_files(when_denied); is_broken(files))
        return files;
    for (int s = 0; s < processors.numSockets; ++s) {
        const eas::ChannelLook look = eas::look_at_channel(static_cast<unsigned>(s), 0);
        const std::string page = "the memory controller of socket " + std::to_string(s);
        if (!look.mapped)
            return broken("a page of " + page, look.error != 0 ? look.error : ENODATA, when_denied,
                          "enable memory-mapped PCI configuration in the firmware");
        if (look.vendor != intel)
            return broken(
                LinkStatus::wrong,
                page + " is not where it is looked for: the page says vendor " + hex(look.vendor),
                s < 2 ? "the firmware numbers the PCI buses otherwise: use the kernel's "
                        "PMU (modprobe intel_uncore)"
                      : "more than two sockets cannot be counted: use the kernel's PMU "
                        "(modprobe intel_uncore)");
    }
    return {"memory counters", LinkStatus::ok, "the memory controllers can be mapped", "", ""};
}

}  // namespace

Link examine_memory_counters(const cpuinfo_t& processors) {
    const eas::MemoryMethod method = eas::memory_method(processors.model);
    switch (method) {
        case eas::MemoryMethod::uncore_msrs:
        case eas::MemoryMethod::uncore_boxes:
            return by_registers(processors, method);
        case eas::MemoryMethod::memory_channels:
            return by_physical_memory(processors);
        case eas::MemoryMethod::none:
            break;
    }
    std::vector<std::string> models;
    for (const eas::ProcessorModel& model : eas::processor_models) {
        if (model.memory != eas::MemoryMethod::none)
            models.push_back(std::to_string(model.model));
    }
    return broken(LinkStatus::missing,
                  "no registers are known but those of models " + joined(models), "");
}

std::string use_of_memory_counters(const cpuinfo_t& processors) {
    const eas::MemoryMethod method = eas::memory_method(processors.model);
    if (method == eas::MemoryMethod::memory_channels) {
        for (int s = 0; s < processors.numSockets; ++s) {
            if (eas::look_at_channel(static_cast<unsigned>(s), 0).counts)
                return "an event is chosen in the memory controller of socket " + std::to_string(s);
        }
        return {};
    }
    const std::uint32_t control = eas::global_control(method);
    for (const int cpu : first_cpus(processors)) {
        if (control != 0 && eas::register_or_zero(cpu, control) != 0)
            return "register " + hex(control) + " of cpu" + std::to_string(cpu) + " is not 0";
    }
    return {};
}

}  // namespace easctl
