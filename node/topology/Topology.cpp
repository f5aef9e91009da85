#include "node/topology/Topology.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "base/Numbers.h"
#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"

namespace eas::node {
namespace {

constexpr const char* cpu_folder = "/sys/devices/system/cpu/";
constexpr const char* node_folder = "/sys/devices/system/node/";

std::vector<int> read_list(const std::string& path) {
    const FileText file = read_text(path);
    return file.good() ? parse_cpu_list(file.text).value_or(std::vector<int>{})
                       : std::vector<int>{};
}

/// The CPUs of a core; the second name is that of kernels before 5.4.
std::vector<int> core_of(const std::string& folder) {
    std::vector<int> siblings = read_list(folder + "core_cpus_list");
    return siblings.empty() ? read_list(folder + "thread_siblings_list") : siblings;
}

/// Places of the CPUs as /sys says them: package ids are the firmware's, a core is its first CPU.
struct Place {
    int package;
    int first_of_core;
};

Place place_of(int cpu, const std::vector<int>& online) {
    const std::string folder = cpu_folder + ("cpu" + decimal(cpu)) + "/topology/";
    const auto package = read_number(folder + "physical_package_id");
    // The firmware may not say, which reads as -1: all such CPUs are one socket.
    Place place{static_cast<int>(package.value_or(-1)), cpu};
    for (const int sibling : core_of(folder))
        if (sibling < place.first_of_core &&
            std::binary_search(online.begin(), online.end(), sibling))
            place.first_of_core = sibling;
    return place;
}

std::map<int, int> numa_nodes_by_cpu() {
    std::map<int, int> nodes;
    for (const int node : read_list(std::string(node_folder) + "online"))
        for (const int cpu : read_list(node_folder + ("node" + decimal(node)) + "/cpulist"))
            nodes.emplace(cpu, node);
    return nodes;
}

/// Numbers for keys in ascending order.
template <typename Key>
std::map<Key, int> numbered(const std::set<Key>& keys) {
    std::map<Key, int> numbers;
    for (const Key& key : keys)
        numbers.emplace(key, static_cast<int>(numbers.size()));
    return numbers;
}

void add_numa_nodes(Topology& topology) {
    const std::map<int, int> nodes = numa_nodes_by_cpu();
    std::set<int> seen;
    for (Cpu& cpu : topology.cpus) {
        const auto found = nodes.find(cpu.id);
        cpu.numa_node = found != nodes.end() ? found->second : -1;
        if (cpu.numa_node >= 0)
            seen.insert(cpu.numa_node);
    }
    topology.numa_nodes = static_cast<int>(seen.size());
}

}  // namespace

std::vector<int> online_cpus() {
    return read_list(std::string(cpu_folder) + "online");
}

Topology read_topology() {
    Topology topology;
    const std::vector<int> online = online_cpus();
    std::map<int, Place> places;
    std::set<int> packages, first_cpus;
    for (const int cpu : online) {
        const Place place = place_of(cpu, online);
        places.emplace(cpu, place);
        packages.insert(place.package);
        first_cpus.insert(place.first_of_core);
    }
    const std::map<int, int> sockets = numbered(packages), cores = numbered(first_cpus);
    std::map<int, int> threads;  // of each core, so far
    for (const auto& [cpu, place] : places)
        topology.cpus.push_back({cpu, sockets.at(place.package), cores.at(place.first_of_core),
                                 threads[place.first_of_core]++, -1});
    topology.possible = static_cast<int>(read_list(std::string(cpu_folder) + "possible").size());
    topology.sockets = static_cast<int>(sockets.size());
    topology.cores = static_cast<int>(cores.size());
    add_numa_nodes(topology);
    return topology;
}

}  // namespace eas::node
