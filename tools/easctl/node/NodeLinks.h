// The links from the library to the hardware of this node.
#pragma once

#include <array>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/node/CpuTopology.h"
#include "tools/easctl/cli/Link.h"

namespace easctl {

inline constexpr std::array node_links = {
    LinkId::processor,       LinkId::registers,      LinkId::core_counters,
    LinkId::memory_counters, LinkId::cpufreq_driver, LinkId::cpufreq_governor,
    LinkId::frequencies,     LinkId::energy_meter,
};
/// Those that a frequency can be set by.
inline constexpr std::array frequency_links = {LinkId::cpufreq_driver, LinkId::cpufreq_governor};
/// Those that a process is measured by.
inline constexpr std::array measuring_links = {LinkId::processor, LinkId::registers,
                                               LinkId::core_counters, LinkId::memory_counters,
                                               LinkId::energy_meter};

/// Looks at one link of the node, and at what it needs. A frequency of `model`, which may be empty,
/// that the node does not have breaks LinkId::frequencies.
Link examine_node(LinkId which, const CoEfficients& model = {});

template <typename Ids>
std::vector<Link> examine_node(const Ids& ids, const CoEfficients& model = {}) {
    std::vector<Link> links;
    for (const LinkId id : ids)
        links.push_back(examine_node(id, model));
    return links;
}

/// The processors of this node; a result of -1 where there is no list of them.
eas::TopologyReading read_processors();

/// "cpufreq driver missing: no such file; what to do: ...", for a message.
std::string trouble_of(const Link& link);

}  // namespace easctl
