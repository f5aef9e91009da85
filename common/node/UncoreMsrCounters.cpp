#include "common/node/UncoreMsrCounters.h"

#include <array>

#include "common/node/CpuTopology.h"
#include "common/node/Msr.h"

namespace {

using eas::RegisterStep;
constexpr auto store = RegisterStep::Kind::write;
constexpr auto merge_upper = RegisterStep::Kind::merge_upper;

// Registers and events of the uncore as in the processor vendor's software developer manual
// (models 1AH, 1EH, 25H, 2CH).
constexpr RegisterStep start_uncore[] = {
    {store, 0x395, 0},            // fixed counter control
    {store, 0x394, 0},            // fixed counter
    {store, 0x3C0, 0},            // event select 0
    {store, 0x3C1, 0},            // event select 1
    {store, 0x3B0, 0},            // counter 0
    {store, 0x3B1, 0},            // counter 1
    {store, 0x391, 0},            // global control
    {store, 0x393, 0},            // global overflow control
    {store, 0x396, 0},            // address and opcode match
    {store, 0x1A6, 0},            // off-core response 0
    {store, 0x395, 1},            // fixed counter: enable
    {store, 0x3C0, 0x400000},     // event select 0: enable
    {store, 0x3C1, 0x400000},     // event select 1: enable
    {merge_upper, 0x3C0, 0x72C},  // event 0x2C, umask 0x07: memory reads, any channel
    {merge_upper, 0x3C1, 0x72F},  // event 0x2F, umask 0x07: memory writes, any channel
    {store, 0x3B0, 0},            // counter 0
    {store, 0x3B1, 0},            // counter 1
    {store, 0x391, 0},            // global control: all off
    {store, 0x391, 0x10000001F},  // counters 0 to 4 and the fixed counter on
};
constexpr std::array<std::uint32_t, 2> uncore_counters = {{
    0x3B0,  // lines read
    0x3B1,  // lines written
}};
constexpr RegisterStep stop_uncore[] = {
    {store, 0x391, 0},  // global control
};

// Boxes of model 2FH (its uncore performance monitoring guide): two memory controllers (M0, M1),
// two home agents (B0, B1), the global one (U).
constexpr RegisterStep start_boxes[] = {
    {store, 0xCA0, 0},           // M0 box control
    {store, 0xCB0, 0},           // M0 event select 0
    {store, 0xCE0, 0},           // M1 box control
    {store, 0xCF0, 0},           // M1 event select 0
    {store, 0xC20, 0},           // B0 box control
    {store, 0xC32, 0},           // B0 event select 1
    {store, 0xC60, 0},           // B1 box control
    {store, 0xC72, 0},           // B1 event select 1
    {store, 0xC00, 0x20000000},  // U global control: reset all
    {store, 0xCAB, 0x5000},      // M0 sub-event selection
    {store, 0xCB0, 0x1A41},      // M0 event select 0: on
    {store, 0xCEB, 0x5000},      // M1 sub-event selection
    {store, 0xCF0, 0x1A41},      // M1 event select 0: on
    {store, 0xC32, 0x19},        // B0 event select 1: on
    {store, 0xC72, 0x19},        // B1 event select 1: on
    {store, 0xCB1, 0},           // M0 counter 0
    {store, 0xCF1, 0},           // M1 counter 0
    {store, 0xC33, 0},           // B0 counter 1
    {store, 0xC73, 0},           // B1 counter 1
    {store, 0xCA0, 3},           // M0 box control: counters 0 and 1 on
    {store, 0xCE0, 3},           // M1 box control: counters 0 and 1 on
    {store, 0xC20, 2},           // B0 box control: counter 1 on
    {store, 0xC60, 2},           // B1 box control: counter 1 on
    {store, 0xC00, 0x10000000},  // U global control: all on
};
constexpr std::array<std::uint32_t, 4> box_counters = {{
    0xCB1,  // M0 counter 0
    0xCF1,  // M1 counter 0
    0xC33,  // B0 counter 1
    0xC73,  // B1 counter 1
}};
constexpr RegisterStep stop_boxes[] = {
    {store, 0xCA0, 0},  // M0 box control
    {store, 0xCE0, 0},  // M1 box control
    {store, 0xC20, 0},  // B0 box control
    {store, 0xC60, 0},  // B1 box control
    {store, 0xC00, 0},  // U global control
};

// First CPU of a socket's physical id; -1 when it has none.
int cpu_of(int socket_id) {
    return socket_id >= 0 && socket_id < max_sockets ? cinfo.cpuId[socket_id] : -1;
}

template <typename Sequence>
void start_all(const Sequence& sequence) {
    for (int s = 0; s < cinfo.numSockets; ++s) {
        const int cpu = cpu_of(cinfo.SId[s]);
        if (cpu < 0)
            continue;
        const eas::ThreadBinding binding(cpu);
        eas::run_sequence(cpu, sequence);
    }
}

template <typename Registers>
std::uint64_t sum_registers(unsigned socket, const Registers& registers) {
    const int cpu = cpu_of(static_cast<int>(socket));
    if (cpu < 0)
        return 0;  // the index of a socket whose ids have gaps
    const eas::ThreadBinding binding(cpu);
    std::uint64_t sum = 0;
    for (const std::uint32_t reg : registers)
        sum += eas::register_or_zero(cpu, reg);
    return sum;
}

template <typename Sequence>
int stop(unsigned socket, const Sequence& sequence) {
    const int cpu = cpu_of(static_cast<int>(socket));
    if (cpu < 0)
        return 0;
    eas::ThreadBinding binding(cpu);
    eas::run_sequence(cpu, sequence);
    return binding.unbind();
}

}  // namespace

std::uint32_t eas::global_control(MemoryMethod method) noexcept {
    switch (method) {
        case MemoryMethod::uncore_msrs:
            return 0x391;
        case MemoryMethod::uncore_boxes:
            return 0xC00;
        case MemoryMethod::memory_channels:
        case MemoryMethod::none:
            break;
    }
    return 0;
}

void init_uncore_msrs() {
    start_all(start_uncore);
}

void init_uncore_boxes() {
    start_all(start_boxes);
}

std::uint64_t getuncrw(unsigned socket) {
    return sum_registers(socket, uncore_counters);
}

std::uint64_t getboxrw(unsigned socket) {
    return sum_registers(socket, box_counters);
}

int cleanup_uncore_msrs(unsigned socket) {
    return stop(socket, stop_uncore);
}

int cleanup_uncore_boxes(unsigned socket) {
    return stop(socket, stop_boxes);
}
