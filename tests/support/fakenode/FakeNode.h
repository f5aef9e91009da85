// A machine that this one is not: runs a function or a command where /sys, the files of /proc that
// describe processors, the msr devices, physical memory and perf_event_open are those of a node of
// a given shape. The node is a private mount namespace and a server process; nothing of it is seen
// from outside. It ends with what runs in it, so a daemon must stay in the foreground. Needs root
// (CAP_SYS_ADMIN) and /dev/fuse.
//
// From inside, a file can be removed, made anew with other content, or with "!EIO" for one that
// fails; "0" into a CPU's `online` takes it offline.
//
// Where it is unlike a real node: every core always works, on one of its threads, whatever runs;
// clocks follow at once; readings of different files and counters that follow one another show one
// moment, for at most 0.2 s; registers of a socket are kept per CPU and take any value; the
// counters in physical memory stand still, also under a workload, and reads of them go unseen;
// events count for any process id, without waiting for its exec, whatever perf_event_paranoid says;
// answered affinity binds nothing and is not inherited; /proc shows what the shape names and has
// here, the rest is this machine's.
#pragma once

#include <functional>
#include <string>

#include "tests/support/fakenode/NodeState.h"

namespace eas::fake {

constexpr int no_node = 77;  // exit status: the node could not be set up

struct NodeOptions {
    bool own_affinity = true;  // threads may be bound to CPUs that this machine does not have
    unsigned seconds = 60;     // what runs in the node is killed after that; 0: never
};

class FakeNode {
  public:
    explicit FakeNode(NodeShape shape = {}, NodeOptions options = {});
    FakeNode(const FakeNode&) = delete;
    FakeNode& operator=(const FakeNode&) = delete;
    ~FakeNode();

    /// Why there can be no fake node here; empty when there can.
    static std::string unavailable();

    /// The result of `body` in a forked child inside the node; 128 + signal when it was killed;
    /// no_node, with a message on standard error, when the node could not be set up.
    int run(const std::function<int()>& body);

    /// The same for a program: argv as for execvp, null-terminated.
    int exec(char* const argv[]);

    [[nodiscard]] NodeState& state() { return *state_; }
    [[nodiscard]] const NodeShape& shape() const { return shape_; }

  private:
    [[noreturn]] void serve(const std::function<int()>& body, const std::string& stage);

    NodeShape shape_;
    NodeOptions options_;
    NodeState* state_;  // a shared mapping
};

}  // namespace eas::fake
