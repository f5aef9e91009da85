// The processors of a fake node, as its topology files have them, and which of them are online. The
// first thread of a core that is online is always busy, the others are always idle.
#pragma once

#include <string>
#include <vector>

#include "tests/support/fakenode/NodeTree.h"

namespace eas::fake {

struct NodeCpu {
    bool present = false;
    bool online = false;
    bool busy = false;
    int socket = 0;  // package id; 0 where the node does not tell
    int die = 0;
    std::string core;  // its threads
};

class NodeCpus {
  public:
    /// Attaches the files `online` of the node and of each CPU.
    explicit NodeCpus(TreeEntry& root);

    [[nodiscard]] const std::vector<NodeCpu>& all() const { return cpus_; }  // by number
    [[nodiscard]] bool is_possible(int cpu) const;
    [[nodiscard]] bool is_online(int cpu) const { return is_possible(cpu) && at(cpu).online; }
    [[nodiscard]] const NodeCpu& at(int cpu) const { return cpus_[static_cast<size_t>(cpu)]; }
    [[nodiscard]] const std::vector<int>& sockets() const { return sockets_; }  // ids, ascending
    [[nodiscard]] std::vector<int> online() const;
    /// The first CPU online of that socket, `preferred` if it is; -1: none.
    [[nodiscard]] int cpu_of(int socket, int preferred) const;
    [[nodiscard]] int changes() const { return changes_; }  // of what is online

  private:
    int set_online(int cpu, const std::string& text);
    void find_busy();

    TreeEntry& folder_;
    std::vector<NodeCpu> cpus_;
    std::vector<int> sockets_;
    int changes_ = 0;
};

}  // namespace eas::fake
