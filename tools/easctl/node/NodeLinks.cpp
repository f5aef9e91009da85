#include "tools/easctl/node/NodeLinks.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "base/UniqueFd.h"
#include "base/UniqueFile.h"
#include "common/node/CpuTopology.h"
#include "common/node/EnergySensors.h"
#include "common/node/EnergyUtil.h"
#include "common/node/ProcessorModel.h"
#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/node/MemoryLink.h"

namespace easctl {
namespace {

constexpr const char* msr_device = "/dev/cpu/0/msr";
constexpr const char* cpufreq = "/sys/devices/system/cpu/cpu0/cpufreq/";

std::string cpuinfo_value(const std::string& key) {
    std::ifstream in(PROC_CPUINFO_PATH);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0 && line.find(": ") != std::string::npos)
            return line.substr(line.find(": ") + 2);
    }
    return "unknown";
}

Link processor(const CoEfficients& /*model*/) {
    const std::string found = cpuinfo_value("model name") + ", family " +
                              cpuinfo_value("cpu family") + ", model " + cpuinfo_value("model\t");
    const eas::TopologyReading reading = read_processors();
    if (reading.result == 0 && eas::can_be_sampled(reading.processors))
        return {"processor", LinkStatus::ok, found, "", ""};
    std::vector<std::string> models;
    for (const eas::ProcessorModel& model : eas::processor_models) {
        if (model.sampled)
            models.push_back(std::to_string(model.model));
    }
    return {"processor", LinkStatus::missing, found, "gethwrusage does not support this processor",
            "calibrate and sample on a node of family 6 whose model is one of " + joined(models)};
}

Link msr(const CoEfficients& /*model*/) {
    const std::string name = std::string("register device ") + msr_device;
    const eas::UniqueFd device(::open(msr_device, O_RDWR | O_CLOEXEC));
    if (device.is_open())
        return {name, LinkStatus::ok, "opens for reading and writing", "", ""};
    const LinkStatus status = status_of(errno);
    return {name, status, std::strerror(errno),
            "no memory counters, no temperature, no nominal frequency",
            status == LinkStatus::denied ? "run as root (secure boot may lock registers)"
                                         : "modprobe msr"};
}

Link perf(const CoEfficients& /*model*/) {
    perf_event_attr event{};
    event.size = sizeof event;
    event.type = PERF_TYPE_HARDWARE;
    event.config = PERF_COUNT_HW_INSTRUCTIONS;
    const eas::UniqueFd counter(
        static_cast<int>(::syscall(SYS_perf_event_open, &event, -1, 0, -1, PERF_FLAG_FD_CLOEXEC)));
    const int error = errno;
    const std::string limit =
        "perf_event_paranoid is " +
        first_line("/proc/sys/kernel/perf_event_paranoid").value_or("unknown");
    if (counter.is_open())
        return {"core counters (perf)", LinkStatus::ok, limit, "", ""};
    const LinkStatus status = status_of(error);
    return {"core counters (perf)", status, limit + "; " + std::strerror(error),
            "no cycles, no instructions: a job cannot be measured",
            status == LinkStatus::denied ? "run as root, or sysctl kernel.perf_event_paranoid=-1"
                                         : "this (virtual) machine shows no counters"};
}

Link unreadable(const std::string& name, const std::string& path, const std::string& meaning,
                const std::string& remedy) {
    const int error = errno;
    return {name, status_of(error), path + ": " + std::strerror(error), meaning, remedy};
}

Link driver(const CoEfficients& /*model*/) {
    const auto driver = first_line(std::string(cpufreq) + "scaling_driver");
    if (!driver)
        return unreadable("cpufreq driver", std::string(cpufreq) + "scaling_driver",
                          "no frequency can be set",
                          "modprobe acpi-cpufreq, or enable P-states in the firmware");
    if (driver == "intel_pstate")
        return {"cpufreq driver", LinkStatus::wrong, *driver,
                "the hardware chooses the frequency; what is set is ignored",
                "boot with intel_pstate=passive (or disable)"};
    return {"cpufreq driver", LinkStatus::ok, *driver, "", ""};
}

Link governor(const CoEfficients& /*model*/) {
    const auto offered = first_line(std::string(cpufreq) + "scaling_available_governors");
    const auto now = first_line(std::string(cpufreq) + "scaling_governor");
    if (!offered || !now)
        return unreadable("cpufreq governor", std::string(cpufreq) + "scaling_governor",
                          "no frequency can be set", "see the cpufreq driver");
    if (offered->find("userspace") == std::string::npos)
        return {"cpufreq governor", LinkStatus::missing, "offered: " + *offered,
                "a fixed frequency needs the governor userspace", "modprobe cpufreq_userspace"};
    const std::string path = std::string(cpufreq) + "scaling_governor";
    if (::access(path.c_str(), W_OK) != 0)
        return {"cpufreq governor", LinkStatus::denied, *now + "; " + std::strerror(errno),
                "this user cannot set a frequency", "run as root"};
    return {"cpufreq governor", LinkStatus::ok, *now + ", userspace is offered", "", ""};
}

Link frequencies(const CoEfficients& model) {
    std::vector<int> offered;
    if (EnergyUtil::get_available_freqs(offered, 0) != 1)
        return {"frequencies", LinkStatus::missing, "the driver gives no list",
                "the library cannot know what may be set", "see the cpufreq driver"};
    std::vector<std::string> unknown;
    for (const int khz : model.frequencyArray()) {
        if (std::find(offered.begin(), offered.end(), khz) == offered.end())
            unknown.push_back(ghz(khz));
    }
    if (!unknown.empty())
        return {"frequencies", LinkStatus::wrong, "the node does not have " + joined(unknown),
                "a policy may select what cannot be set", "calibrate on a node of this kind"};
    return {"frequencies", LinkStatus::ok, std::to_string(offered.size()) + " can be set", "", ""};
}

Link energy_meter(const CoEfficients& /*model*/) {
    int error = ENOENT;
    std::string failed = "/sys/devices/platform/qpx.*";
    for (const char* device : {"qpx.1", "qpx.0"}) {
        const std::string path =
            std::string("/sys/devices/platform/") + device + '/' + value_files[0];
        if (const auto value = first_line(path))
            return {"energy meter", LinkStatus::ok, path + " reads " + *value, "", ""};
        if (errno == ENOENT)
            continue;
        error = errno;
        failed = path;
    }
    const bool silent = error != ENOENT && status_of(error) != LinkStatus::denied;
    return {"energy meter", silent ? LinkStatus::wrong : status_of(error),
            failed + ": " + std::strerror(error), "no power, no energy: a job cannot be measured",
            silent            ? "the meter is there and does not answer: see dmesg"
            : error == ENOENT ? "load the driver of the meter"
                              : "run as root, or chmod a+r the sensor files"};
}

Link memory_counters(const CoEfficients& /*model*/) {
    return examine_memory_counters(read_processors().processors);
}

struct NodeLink {
    LinkId id;
    Link (*examine)(const CoEfficients& model);
};

constexpr std::array<NodeLink, node_links.size()> links = {{
    {LinkId::processor, processor},
    {LinkId::registers, msr},
    {LinkId::core_counters, perf},
    {LinkId::memory_counters, memory_counters},
    {LinkId::cpufreq_driver, driver},
    {LinkId::cpufreq_governor, governor},
    {LinkId::frequencies, frequencies},
    {LinkId::energy_meter, energy_meter},
}};

}  // namespace

eas::TopologyReading read_processors() {
    const eas::UniqueFile cpuinfo = eas::open_for_reading(PROC_CPUINFO_PATH);
    return cpuinfo != nullptr ? eas::read_topology(cpuinfo.get()) : eas::TopologyReading{-1, {}};
}

Link examine_node(LinkId which, const CoEfficients& model) {
    const auto* row = std::find_if(links.begin(), links.end(),
                                   [which](const NodeLink& one) { return one.id == which; });
    return row == links.end() ? Link{} : identified(which, row->examine(model));
}

std::string trouble_of(const Link& link) {
    return link.name + ' ' + name_of(link.status) + ": " + link.found +
           "; what to do: " + link.remedy;
}

}  // namespace easctl
