// The edge of the room "topology".
#include <algorithm>

#include "node/Edge.h"
#include "node/topology/Processor.h"
#include "node/topology/Topology.h"

namespace eas::node {
namespace {

easnode_topology in_numbers(const Topology& topology, const Processor& processor) {
    easnode_topology numbers{};
    numbers.cpus = static_cast<int32_t>(topology.cpus.size());
    numbers.possible_cpus = topology.possible;
    numbers.sockets = topology.sockets;
    numbers.cores = topology.cores;
    for (const Cpu& cpu : topology.cpus)
        numbers.threads_per_core = std::max(numbers.threads_per_core, cpu.thread + 1);
    numbers.numa_nodes = topology.numa_nodes;
    numbers.family = processor.family;
    numbers.model = processor.model;
    fill_text(numbers.processor, processor.name);
    return numbers;
}

}  // namespace
}  // namespace eas::node

int easnode_topology_read(easnode_topology* topology) {
    using namespace eas::node;
    return at_the_edge([&] {
        if (!is_record(topology))
            return EASNODE_BAD_ARGUMENT;
        fill_record(topology, in_numbers(read_topology(), read_processor()));
        return EASNODE_OK;
    });
}

int easnode_topology_cpus(easnode_cpu* cpus, size_t capacity, size_t* count) {
    using namespace eas::node;
    return at_the_edge([&] {
        if (count == nullptr || (cpus == nullptr && capacity > 0))
            return EASNODE_BAD_ARGUMENT;
        const Topology topology = read_topology();
        *count = topology.cpus.size();
        for (size_t i = 0; i < std::min(capacity, *count); ++i) {
            const Cpu& cpu = topology.cpus[i];
            cpus[i] = {cpu.id, cpu.socket, cpu.core, cpu.thread, cpu.numa_node};
        }
        return *count > capacity ? EASNODE_TOO_SMALL : EASNODE_OK;
    });
}
