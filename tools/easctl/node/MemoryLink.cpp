#include "tools/easctl/node/MemoryLink.h"

#include <algorithm>
#include <array>

#include "node/meter/MemoryRegisters.h"

namespace easctl {
namespace {

using eas::node::Obstacle;

constexpr const char* forbidden_pages =
    "run as root; where the kernel forbids it to root as well: no secure boot, iomem=relaxed";

struct Remedy {
    Obstacle obstacle;
    const char* when_denied;
    const char* otherwise;
};
constexpr std::array remedies = {
    Remedy{Obstacle::registers, "run as root; secure boot and msr.allow_writes=off lock registers",
           "modprobe msr"},
    Remedy{Obstacle::memory, forbidden_pages,
           "mknod -m 640 /dev/mem c 1 1, on a kernel with CONFIG_DEVMEM"},
    Remedy{Obstacle::table, forbidden_pages,
           "enable ACPI and memory-mapped PCI configuration in the firmware"},
    Remedy{Obstacle::page, forbidden_pages,
           "enable memory-mapped PCI configuration in the firmware"},
    Remedy{Obstacle::other_page, "",
           "the firmware numbers the PCI buses otherwise: use the kernel's PMU (modprobe "
           "intel_uncore)"},
    Remedy{Obstacle::sockets, "",
           "more than two sockets cannot be counted: use the kernel's PMU (modprobe "
           "intel_uncore)"},
};

LinkStatus status_of(const eas::node::RegisterLook& look) {
    if (look.obstacle == Obstacle::none)
        return LinkStatus::ok;
    const bool wrong = look.obstacle == Obstacle::other_page || look.obstacle == Obstacle::sockets;
    return wrong ? LinkStatus::wrong : easctl::status_of(look.error);
}

}  // namespace

Link examine_memory_counters(const cpuinfo_t& processors) {
    const eas::node::RegisterLook look = eas::node::look_at_registers(processors);
    Link link{"memory counters", status_of(look), look.found, "", ""};
    if (link.status == LinkStatus::ok)
        return link;
    link.meaning = "gethwrusage counts no memory traffic";
    const auto* remedy = std::find_if(remedies.begin(), remedies.end(), [&look](const Remedy& row) {
        return row.obstacle == look.obstacle;
    });
    if (remedy != remedies.end())
        link.remedy = link.status == LinkStatus::denied ? remedy->when_denied : remedy->otherwise;
    return link;
}

}  // namespace easctl
