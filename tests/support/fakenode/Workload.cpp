// The simulated work: at each frequency a power and a pace, so that a calibration finds again the
// coefficients from which the rows were made.
#include <chrono>
#include <cstdlib>

#include "tests/support/fakenode/NodeServer.h"

namespace eas::fake {

const WorkloadRow& Workload::row() const {
    const WorkloadRow* nearest = &shape_.workload.front();
    for (const WorkloadRow& row : shape_.workload)
        if (std::abs(row.khz - state_.cpufreq[0].current) <
            std::abs(nearest->khz - state_.cpufreq[0].current))
            nearest = &row;
    return *nearest;
}

void Workload::advance() {
    if (!active())
        return;
    const double now =
        std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    const double seconds = last_ > 0 ? now - last_ : 0;
    last_ = now;
    const double cycles = row().khz * 1e3 * shape_.sockets * shape_.cores * seconds;
    const double instructions = cycles / row().cycles_per_instruction;
    joules_ += row().watts * seconds;
    cycles_ += cycles;
    instructions_ += instructions;
    lines_ += instructions * row().lines_per_instruction;
    // All lines are counted as read on the first socket.
    state_.set_msr(shape_.first_cpu_of(0), 0x3B0, static_cast<uint64_t>(lines_));
}

double Workload::total(const perf_event_attr& event) const {
    if (event.type != PERF_TYPE_HARDWARE)
        return 0;
    if (event.config == PERF_COUNT_HW_CPU_CYCLES)
        return cycles_;
    return event.config == PERF_COUNT_HW_INSTRUCTIONS ? instructions_ : 0;
}

}  // namespace eas::fake
