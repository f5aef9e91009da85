// The simulated work: at each frequency a power and a pace, so that a calibration finds again the
// coefficients from which the rows were made.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "base/UniqueFd.h"
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

void Workload::advance(const std::string& physical_memory) {
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
    publish_lines(physical_memory);
}

double Workload::total(const perf_event_attr& event) const {
    if (event.type != PERF_TYPE_HARDWARE)
        return 0;
    if (event.config == PERF_COUNT_HW_CPU_CYCLES)
        return cycles_;
    return event.config == PERF_COUNT_HW_INSTRUCTIONS ? instructions_ : 0;
}

// All lines are counted as read on the first socket: in its uncore counter on models that have one,
// in its first memory channel (bus 127, device 16, function 4, counter 0) on the others.
void Workload::publish_lines(const std::string& physical_memory) const {
    const auto lines = static_cast<uint64_t>(lines_);
    const int cpu = shape_.first_cpu_of(0);
    state_.set_msr(cpu, shape_.model == 47 ? 0xCB1 : 0x3B0, lines);
    if (shape_.model != 45 && shape_.model != 62)
        return;
    const UniqueFd memory(::open(physical_memory.c_str(), O_WRONLY | O_CLOEXEC));
    const uint64_t page = shape_.mcfg_base + ((127 * 32 + 16) * 8 + 4) * uint64_t{4096};
    if (::pwrite(memory.get(), &lines, sizeof lines, static_cast<off_t>(page + 0xA0)) < 0)
        std::abort();
}

}  // namespace eas::fake
