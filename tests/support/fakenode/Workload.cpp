#include "tests/support/fakenode/Workload.h"

#include <algorithm>
#include <chrono>

namespace eas::fake {

Workload::Workload(const NodeShape& shape, NodeState& state, const NodeCpus& cpus,
                   const Cpufreq& cpufreq)
    : shape_(shape),
      state_(state),
      cpus_(cpus),
      cpufreq_(cpufreq),
      rows_(shape.workload),
      by_cpu_(cpus.all().size()) {
    for (const int socket : cpus.sockets())
        by_socket_[socket] = {};
    std::sort(rows_.begin(), rows_.end(),
              [](const WorkloadRow& a, const WorkloadRow& b) { return a.khz < b.khz; });
}

WorkloadRow Workload::row_at(int khz) const {
    const auto above = std::find_if(rows_.begin(), rows_.end(),
                                    [khz](const WorkloadRow& row) { return row.khz >= khz; });
    if (above == rows_.begin() || (above != rows_.end() && above->khz == khz))
        return *above;
    if (above == rows_.end())
        return rows_.back();
    const WorkloadRow& high = *above;
    const WorkloadRow& low = *std::prev(above);
    const double part = static_cast<double>(khz - low.khz) / (high.khz - low.khz);
    const auto between = [part](double from, double to) { return from + part * (to - from); };
    return {khz, between(low.watts, high.watts),
            between(low.cycles_per_instruction, high.cycles_per_instruction),
            between(low.lines_per_instruction, high.lines_per_instruction)};
}

void Workload::advance() {
    if (!active())
        return;
    const double now =
        std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    const double seconds = last_ > 0 ? now - last_ : 0;
    last_ = now;
    seconds_ += seconds;
    watts_ = 0;
    const auto busy = std::count_if(cpus_.all().begin(), cpus_.all().end(),
                                    [](const NodeCpu& cpu) { return cpu.busy; });
    WorkloadRow row{};
    for (int cpu = 0; cpu < static_cast<int>(by_cpu_.size()); ++cpu) {
        if (!cpus_.at(cpu).busy)
            continue;
        const int khz = cpufreq_.clock_of(cpu);
        if (khz != row.khz)
            row = row_at(khz);
        row.khz = khz;
        const double instructions = khz * 1e3 * seconds / row.cycles_per_instruction;
        CpuWork& work = by_cpu_[static_cast<size_t>(cpu)];
        work.cycles += khz * 1e3 * seconds;
        work.reference_cycles += cpufreq_.nominal_of(cpu) * 1e3 * seconds;
        work.instructions += instructions;
        work.lines += instructions * row.lines_per_instruction;
        work.busy_seconds += seconds;
        SocketWork& socket = by_socket_[cpus_.at(cpu).socket];
        socket.joules += row.watts * seconds / static_cast<double>(busy);
        socket.lines += instructions * row.lines_per_instruction;
        watts_ += row.watts / static_cast<double>(busy);
    }
    // All lines are counted as read on the first socket.
    if (shape_.old_model)
        state_.set_msr(shape_.first_cpu_of(0), 0x3B0, static_cast<uint64_t>(all_sockets().lines));
}

double Workload::busy_seconds() const {
    double sum = 0;
    for (const CpuWork& cpu : by_cpu_)
        sum += cpu.busy_seconds;
    return sum;
}

SocketWork Workload::of_socket(int id) const {
    const auto found = by_socket_.find(id);
    return found != by_socket_.end() ? found->second : SocketWork{};
}

SocketWork Workload::all_sockets() const {
    SocketWork sum{};
    for (const auto& [id, socket] : by_socket_) {
        sum.joules += socket.joules;
        sum.lines += socket.lines;
    }
    return sum;
}

}  // namespace eas::fake
