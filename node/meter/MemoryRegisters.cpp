#include "node/meter/MemoryRegisters.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "base/Numbers.h"
#include "base/UniqueFd.h"
#include "base/UniqueFile.h"
#include "common/node/EnergyUtil.h"
#include "common/node/MemoryChannels.h"
#include "common/node/Msr.h"
#include "common/node/ProcessorModel.h"
#include "common/node/UncoreMsrCounters.h"
#include "node/files/KeptFile.h"

namespace eas::node {
namespace {

constexpr std::uint16_t intel = 0x8086;
constexpr int sockets_with_a_known_bus = 2;

std::string hex(std::uint32_t number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%X", number);
    return text.data();
}

RegisterLook in_the_way(Obstacle obstacle, const std::string& what, int error) {
    return {obstacle, error, why(what, error)};
}

/// The first CPU of each socket.
std::vector<int> first_cpus(const cpuinfo_t& processors) {
    std::vector<int> cpus;
    cpus.reserve(static_cast<std::size_t>(std::max(0, processors.numSockets)));
    for (int s = 0; s < processors.numSockets; ++s)
        cpus.push_back(std::max(0, processors.cpuId[processors.SId[s]]));
    return cpus;
}

/// Writes what stands there already: a kernel may let registers be read only.
RegisterLook by_registers(const cpuinfo_t& processors, MemoryMethod method) {
    const std::uint32_t control = global_control(method);
    for (const int cpu : first_cpus(processors)) {
        std::uint64_t value = 0;
        errno = 0;
        if (rdmsr(cpu, control, &value) != 0 || wrmsr(cpu, control, value) != 0)
            return in_the_way(Obstacle::registers,
                              "/dev/cpu/" + decimal(cpu) + "/msr, register " + hex(control),
                              errno != 0 ? errno : EIO);
    }
    return {Obstacle::none, 0, "registers of each socket can be written"};
}

/// The files behind the pages: which of them is in the way tells more than a failed mapping.
RegisterLook look_at_files() {
    struct File {
        Obstacle obstacle;
        const char* path;
        int flags;
    };
    static constexpr std::array files{
        File{Obstacle::memory, "/dev/mem", O_RDWR},
        File{Obstacle::table, "/sys/firmware/acpi/tables/MCFG", O_RDONLY},
    };
    for (const File& one : files) {
        const UniqueFd file(::open(one.path, one.flags | O_CLOEXEC));
        if (!file.is_open())
            return in_the_way(one.obstacle, one.path, errno);
    }
    return {};
}

/// Models whose counters are pages of the memory controllers. A kernel that is locked down opens
/// the device and refuses to map it; where firmware has numbered the buses otherwise, the page is
/// another device's, or none.
RegisterLook by_physical_memory(const cpuinfo_t& processors) {
    if (RegisterLook files = look_at_files(); files.obstacle != Obstacle::none)
        return files;
    for (int s = 0; s < processors.numSockets; ++s) {
        const ChannelLook look = look_at_channel(static_cast<unsigned>(s), 0);
        const std::string page = "the memory controller of socket " + decimal(s);
        if (!look.mapped)
            return in_the_way(Obstacle::page, "a page of " + page,
                              look.error != 0 ? look.error : ENODATA);
        if (look.vendor != intel)
            return {
                s < sockets_with_a_known_bus ? Obstacle::other_page : Obstacle::sockets, 0,
                page + " is not where it is looked for: the page says vendor " + hex(look.vendor)};
    }
    return {Obstacle::none, 0, "the memory controllers can be mapped"};
}

std::string models_with_a_method() {
    std::string models;
    for (const ProcessorModel& row : processor_models)
        if (row.memory != MemoryMethod::none)
            models += (models.empty() ? "" : ", ") + decimal(row.model);
    return models;
}

}  // namespace

cpuinfo_t known_processors() {
    const UniqueFile cpuinfo = open_for_reading(PROC_CPUINFO_PATH);
    if (cpuinfo == nullptr)
        return {};
    const TopologyReading reading = read_topology(cpuinfo.get());
    return reading.result == 0 ? reading.processors : cpuinfo_t{};
}

RegisterLook look_at_registers(const cpuinfo_t& processors) {
    switch (const MemoryMethod method = memory_method(processors.model)) {
        case MemoryMethod::uncore_msrs:
        case MemoryMethod::uncore_boxes:
            return by_registers(processors, method);
        case MemoryMethod::memory_channels:
            return by_physical_memory(processors);
        case MemoryMethod::none:
            break;
    }
    return {Obstacle::no_method, 0,
            "no registers are known but those of models " + models_with_a_method()};
}

std::string use_of_registers(const cpuinfo_t& processors) {
    const MemoryMethod method = memory_method(processors.model);
    if (method == MemoryMethod::memory_channels) {
        for (int s = 0; s < processors.numSockets; ++s)
            if (look_at_channel(static_cast<unsigned>(s), 0).counts)
                return "an event is chosen in the memory controller of socket " + decimal(s);
        return {};
    }
    const std::uint32_t control = global_control(method);
    for (const int cpu : first_cpus(processors))
        if (control != 0 && register_or_zero(cpu, control) != 0)
            return "register " + hex(control) + " of cpu" + decimal(cpu) + " is not 0";
    return {};
}

}  // namespace eas::node
