#include <algorithm>

#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"
#include "node/meter/CoreEvents.h"

namespace eas::node {
namespace {

constexpr const char* devices = "/sys/bus/event_source/devices/";

}  // namespace

std::vector<CorePmu> core_pmus() {
    std::vector<CorePmu> pmus;
    // Only a PMU that counts for some of the cores is named like this and lists its CPUs.
    for (const std::string& name : names_in(devices)) {
        if (name.rfind("cpu_", 0) != 0)
            continue;
        const FileText list = read_text(std::string(devices) + name + "/cpus");
        const auto cpus = list.good() ? parse_cpu_list(list.text) : std::nullopt;
        const auto type = read_number(std::string(devices) + name + "/type");
        if (cpus && !cpus->empty() && type && *type > 0)
            pmus.push_back({static_cast<std::uint32_t>(*type), *cpus});
    }
    return pmus;
}

}  // namespace eas::node
