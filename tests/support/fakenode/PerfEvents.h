// The events that a fake node's PMUs count, and the kernel's rules for opening and reading them.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/support/fakenode/Workload.h"

namespace eas::fake {

class PerfEvents {
  public:
    /// Gives the PMUs of `root` new type numbers, different ones at each start.
    PerfEvents(const NodeShape& shape, NodeState& state, const Workload& workload,
               const NodeCpus& cpus, TreeEntry& root);

    /// Opens the event of `counter`; `leader` is the number of its group's first event, or -1. The
    /// new event's number, or a negative errno.
    int open(const Counter& counter, int leader);
    void close(int number);
    /// What a read gives; empty where `number` was never opened.
    [[nodiscard]] std::vector<uint64_t> words(int number);
    bool switch_on(int number, bool on);
    /// Ends the counting on CPUs that went offline.
    void follow_cpus();

  private:
    struct Pmu {
        std::string name;
        std::vector<int> cpumask;  // empty: counts per CPU, also for processes
        std::vector<int> cpus;     // of a kind of core; empty: all
        bool is_core;
        int slots;  // 0: as many as are wanted
    };
    /// Box: the socket's part of a PMU; counts for whoever opens it.
    struct Event {
        const Pmu* pmu;
        int cpu;     // -1: a process on any
        int socket;  // of the box; -1: no box
        int leader;
        std::function<double()> total;
        double base = 0, counted = 0;                  // total when folded last; since the open
        double folded = 0, enabled = 0, running = 0;   // s
        bool on = true, closed = false, dead = false;  // dead: its CPU went offline
    };

    void add_pmu(const std::string& name, TreeEntry& folder, int offset, const NodeShape& shape);
    [[nodiscard]] const Pmu* core_pmu(int cpu) const;
    int choose(const Counter& counter, Event& event) const;
    int choose_generic(const Counter& counter, Event& event) const;
    int choose_box(const Counter& counter, Event& event) const;
    int check_group(const Event& event, int leader) const;
    [[nodiscard]] std::function<double()> per_cpu(const std::string& quantity, const Event& event,
                                                  double factor) const;
    [[nodiscard]] std::function<double()> per_socket(const CountRule& rule,
                                                     const Event& event) const;
    [[nodiscard]] double part_of(const Event& event, const Counter& counter) const;
    void fold(size_t number);
    void fold_box(const Event& of);

    const NodeShape& shape_;
    NodeState& state_;
    const Workload& work_;
    const NodeCpus& cpus_;
    std::map<uint32_t, Pmu> pmus_;  // by type
    std::deque<Event> events_;      // by number, as NodeState::counters
};

}  // namespace eas::fake
