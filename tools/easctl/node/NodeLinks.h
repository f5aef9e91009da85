// The links from this node's programs to its hardware: what libeasnode measures and sets, and what
// gethwrusage counts on the processors that it knows.
#pragma once

#include <array>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/node/CpuTopology.h"
#include "tools/easctl/cli/Link.h"

namespace easctl {

/// Those of libeasnode.
inline constexpr std::array node_links = {
    LinkId::processor, LinkId::instructions,      LinkId::memory_traffic,
    LinkId::energy,    LinkId::frequency_control, LinkId::frequencies,
};
/// Those of gethwrusage; the first tells whether the others matter.
inline constexpr std::array old_node_links = {LinkId::old_processor, LinkId::registers,
                                              LinkId::core_counters, LinkId::memory_counters};

/// Looks at one link of the node, and at what it needs; changes nothing. A frequency of `model`,
/// which may be empty, that the node does not have breaks LinkId::frequencies.
Link examine_node(LinkId which, const CoEfficients& model = {});

/// All of them; those of gethwrusage as far as they matter.
std::vector<Link> examine_whole_node(const CoEfficients& model);

/// The processors of this node; a result of -1 where there is no list of them.
eas::TopologyReading read_processors();

/// "AMD EPYC 9654, family 25, model 17".
std::string processor_text();

/// "frequency control missing: no such file; what to do: ...", for a message.
std::string trouble_of(const Link& link);

}  // namespace easctl
