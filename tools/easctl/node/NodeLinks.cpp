#include "tools/easctl/node/NodeLinks.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/UniqueFile.h"
#include "common/node/EnergyUtil.h"
#include "common/node/ProcessorModel.h"
#include "node/meter/MemoryRegisters.h"
#include "tools/easctl/node/CountersLink.h"
#include "tools/easctl/node/FrequencyControl.h"
#include "tools/easctl/node/MemoryLink.h"
#include "tools/easctl/node/NodeMeter.h"

namespace easctl {
namespace {

Link processor(const CoEfficients& /*model*/) {
    return {"processor", LinkStatus::ok, processor_text(), "", ""};
}

/// A figure of the meter, whose sources are opened for it alone.
struct FigureLink {
    const char* name;
    easnode_figure_id figure;
    const char* meaning;  // of a missing one
    const char* remedy;
};

constexpr FigureLink instructions_link = {
    "cycles and instructions", EASNODE_INSTRUCTIONS, "a job cannot be measured",
    "run as root, or sysctl kernel.perf_event_paranoid=0; a virtual machine may have no counters"};
constexpr FigureLink memory_link = {
    "memory traffic", EASNODE_MEMORY, "a job cannot be measured",
    "run as root; modprobe intel_uncore or amd_uncore, or mount resctrl; --estimate takes cache "
    "misses for it"};
constexpr FigureLink energy_link = {
    "energy", EASNODE_ENERGY, "no power: a job cannot be measured",
    "run as root; load the driver of the node's power meter, or intel_rapl_msr; or give "
    "--power-command"};

Link link_of(const FigureLink& row) {
    MeterOptions options;
    if (row.figure != EASNODE_INSTRUCTIONS)
        options.core = "none";
    if (row.figure != EASNODE_MEMORY)
        options.memory = "none";
    if (row.figure != EASNODE_ENERGY)
        options.energy = "none";
    const NodeMeter meter(options, 0, NodeMeter::Use::look);
    if (const auto source = meter.serving(row.figure))
        return {row.name, LinkStatus::ok, std::string(source->name) + ": " + source->text, "", ""};
    std::string found = "no source serves";
    for (const easnode_source& source : meter.sources(row.figure)) {
        if (source.state == EASNODE_REFUSED)
            found += std::string("; ") + source.name + ": " + source.text;
    }
    return {row.name, ::geteuid() == 0 ? LinkStatus::missing : LinkStatus::denied, found,
            row.meaning, row.remedy};
}

Link instructions(const CoEfficients& /*model*/) {
    return link_of(instructions_link);
}
Link memory_traffic(const CoEfficients& /*model*/) {
    return link_of(memory_link);
}
Link energy(const CoEfficients& /*model*/) {
    return link_of(energy_link);
}

Link frequency_control(const CoEfficients& /*model*/) {
    const std::string name = "frequency control";
    const NodeFrequency frequency({});
    const easnode_frequency_info info = frequency.info();
    if (info.method == EASNODE_FREQUENCY_NONE)
        return {name, LinkStatus::missing, "no cpufreq driver", "no frequency can be set",
                "load a cpufreq driver, or enable P-states in the firmware; a virtual machine has "
                "none"};
    const std::string found = frequency_text(info);
    if (::access("/sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq", W_OK) != 0)
        return {name, LinkStatus::denied, found, "this user cannot set a frequency", "run as root"};
    return {name, LinkStatus::ok, found, "", ""};
}

Link frequencies(const CoEfficients& model) {
    const NodeFrequency frequency({});
    const std::vector<easnode_step> offered = frequency.steps();
    const easnode_frequency_info info = frequency.info();
    if (offered.empty())
        return {"frequencies", LinkStatus::missing, "none is offered", "none can be set",
                "see the frequency control"};
    std::vector<std::string> unknown;
    for (const int khz : model.frequencyArray()) {
        const bool in_table =
            std::any_of(offered.begin(), offered.end(),
                        [khz](const easnode_step& step) { return step.khz == khz; });
        const bool in_range = khz >= info.lowest_khz && khz <= info.highest_khz;
        if (info.has_table != 0 ? !in_table : !in_range)
            unknown.push_back(ghz(khz));
    }
    if (!unknown.empty())
        return {"frequencies", LinkStatus::wrong, "the node does not have " + joined(unknown),
                "a policy may select what cannot be set", "calibrate on a node of this kind"};
    return {"frequencies", LinkStatus::ok,
            std::to_string(offered.size()) +
                (info.has_table != 0 ? " in the driver's table"
                                     : " offered, and any between the lowest and the highest"),
            "", ""};
}

Link old_processor(const CoEfficients& /*model*/) {
    const std::string name = "gethwrusage";
    const eas::TopologyReading reading = read_processors();
    if (reading.result == 0 && eas::can_be_sampled(reading.processors))
        return {name, LinkStatus::ok, "knows this processor", "", ""};
    std::vector<std::string> models;
    for (const eas::ProcessorModel& model : eas::processor_models) {
        if (model.sampled)
            models.push_back(std::to_string(model.model));
    }
    return {name, LinkStatus::ok,
            "not for this processor (it knows Intel family 6, models " + joined(models) +
                "); libeasnode measures it",
            "", ""};
}

Link memory_counters(const CoEfficients& /*model*/) {
    const cpuinfo_t processors = read_processors().processors;
    Link link = examine_memory_counters(processors);
    if (link.status != LinkStatus::ok)
        return link;
    if (const std::string user = eas::node::use_of_registers(processors); !user.empty()) {
        link.status = LinkStatus::warning;
        link.found = user + ": a program samples there, or left them so";
        link.meaning = "a second one would spoil the figures of both";
        link.remedy = "one sampler for each node";
    }
    return link;
}

struct NodeLink {
    LinkId id;
    Link (*examine)(const CoEfficients& model);
};

constexpr std::array<NodeLink, node_links.size() + old_node_links.size()> links = {{
    {LinkId::processor, processor},
    {LinkId::instructions, instructions},
    {LinkId::memory_traffic, memory_traffic},
    {LinkId::energy, energy},
    {LinkId::frequency_control, frequency_control},
    {LinkId::frequencies, frequencies},
    {LinkId::old_processor, old_processor},
    {LinkId::registers, examine_registers},
    {LinkId::core_counters, examine_core_counters},
    {LinkId::memory_counters, memory_counters},
}};

bool gethwrusage_serves() {
    const eas::TopologyReading reading = read_processors();
    return reading.result == 0 && eas::can_be_sampled(reading.processors);
}

}  // namespace

eas::TopologyReading read_processors() {
    const eas::UniqueFile cpuinfo = eas::open_for_reading(PROC_CPUINFO_PATH);
    return cpuinfo != nullptr ? eas::read_topology(cpuinfo.get()) : eas::TopologyReading{-1, {}};
}

std::string processor_text() {
    easnode_topology topology{};
    topology.size = sizeof topology;
    easnode_topology_read(&topology);
    const std::string name = *topology.processor != '\0' ? topology.processor : "unknown";
    if (topology.family < 0)
        return name;
    return name + ", family " + std::to_string(topology.family) + ", model " +
           std::to_string(topology.model);
}

Link examine_node(LinkId which, const CoEfficients& model) {
    const auto* row = std::find_if(links.begin(), links.end(),
                                   [which](const NodeLink& one) { return one.id == which; });
    return row == links.end() ? Link{} : identified(which, row->examine(model));
}

std::vector<Link> examine_whole_node(const CoEfficients& model) {
    std::vector<Link> found;
    for (const LinkId id : node_links)
        found.push_back(examine_node(id, model));
    for (const LinkId id : old_node_links) {
        if (id == LinkId::old_processor || gethwrusage_serves())
            found.push_back(examine_node(id, model));
    }
    return found;
}

std::string trouble_of(const Link& link) {
    return link.name + ' ' + name_of(link.status) + ": " + link.found +
           "; what to do: " + link.remedy;
}

}  // namespace easctl
