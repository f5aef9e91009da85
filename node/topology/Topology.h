// The node's online CPUs: their sockets, cores and threads. Read from /sys on each call: CPUs come
// and go. Any thread may call.
#pragma once

#include <vector>

namespace eas::node {

struct Cpu {
    int id;         // the kernel's number; numbers may be missing in between
    int socket;     // 0, 1, ... in ascending order of the kernel's package ids
    int core;       // 0, 1, ... over the whole node, in the order of the cores' first CPUs
    int thread;     // 0, 1, ... within the core
    int numa_node;  // -1: none
};

struct Topology {
    std::vector<Cpu> cpus;  // ascending; empty when /sys lists no CPU
    int possible = 0;       // how many CPUs the kernel makes room for
    int sockets = 0;
    int cores = 0;
    int numa_nodes = 0;  // with CPUs: nodes of memory alone are not counted
};

/// The CPUs that run now, ascending; empty when the kernel's list cannot be read.
[[nodiscard]] std::vector<int> online_cpus();

[[nodiscard]] Topology read_topology();

}  // namespace eas::node
