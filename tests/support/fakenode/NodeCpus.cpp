#include "tests/support/fakenode/NodeCpus.h"

#include <algorithm>
#include <cerrno>
#include <set>

namespace eas::fake {

NodeCpus::NodeCpus(TreeEntry& root)
    : folder_(root.make("sys/devices/system/cpu", TreeEntry::Kind::folder)) {
    const std::vector<int> possible = cpu_list(folder_.value("possible", "0"));
    cpus_.resize(static_cast<size_t>(possible.back()) + 1);
    for (const int cpu : cpu_list(folder_.value("present", "0")))
        cpus_.at(static_cast<size_t>(cpu)).present = true;
    const std::vector<int> online = cpu_list(folder_.value("online", "0"));
    for (int cpu = 0; cpu < static_cast<int>(cpus_.size()); ++cpu) {
        const std::string name = "cpu" + std::to_string(cpu), topology = name + "/topology/";
        NodeCpu& one = cpus_[static_cast<size_t>(cpu)];
        one.online = std::find(online.begin(), online.end(), cpu) != online.end();
        one.socket =
            std::max(0, static_cast<int>(folder_.number(topology + "physical_package_id")));
        one.die = static_cast<int>(folder_.number(topology + "die_id"));
        one.core = folder_.value(topology + "core_cpus_list",
                                 folder_.value(topology + "thread_siblings_list", name));
        folder_.attach(
            name + "/online", [this, cpu] { return at(cpu).online ? "1\n" : "0\n"; },
            [this, cpu](const std::string& text) { return set_online(cpu, text); });
    }
    std::set<int> sockets;
    for (const int cpu : online)
        sockets.insert(at(cpu).socket);
    sockets_.assign(sockets.begin(), sockets.end());
    folder_.attach("online", [this] { return list_text(this->online()); });
    find_busy();
}

bool NodeCpus::is_possible(int cpu) const {
    return cpu >= 0 && cpu < static_cast<int>(cpus_.size());
}

std::vector<int> NodeCpus::online() const {
    std::vector<int> list;
    for (int cpu = 0; cpu < static_cast<int>(cpus_.size()); ++cpu)
        if (at(cpu).online)
            list.push_back(cpu);
    return list;
}

int NodeCpus::cpu_of(int socket, int preferred) const {
    if (is_online(preferred))
        return preferred;
    for (const int cpu : online())
        if (at(cpu).socket == socket)
            return cpu;
    return -1;
}

/// Takes away what an offline CPU does not show, or brings it back.
int NodeCpus::set_online(int cpu, const std::string& text) {
    if (text != "0\n" && text != "1\n" && text != "0" && text != "1")
        return -EINVAL;
    NodeCpu& one = cpus_[static_cast<size_t>(cpu)];
    const bool wanted = text.front() == '1';
    if (one.online == wanted)
        return 0;
    one.online = wanted;
    ++changes_;
    TreeEntry* entry = folder_.find("cpu" + std::to_string(cpu));
    auto& from = wanted ? entry->away : entry->children;
    auto& to = wanted ? entry->children : entry->away;
    for (const char* name : {"topology", "cache"})
        to.insert(from.extract(name));
    find_busy();
    return 0;
}

void NodeCpus::find_busy() {
    std::set<std::string> cores;
    for (NodeCpu& one : cpus_)
        one.busy = one.online && cores.insert(one.core).second;
}

}  // namespace eas::fake
