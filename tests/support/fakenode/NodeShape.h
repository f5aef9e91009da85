// What a fake node looks like: its processor, its frequencies and the work it pretends to do. Plain
// data; kHz, W. Tests and profiles fill it, nothing here touches the machine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace eas::fake {

/// How the cpufreq driver behaves.
enum class FreqDriver {
    kTable,        // obeys: governors of its own plus "userspace"
    kNoUserspace,  // like a driver with internal governors: no "userspace", no table of frequencies
    kDeaf,         // takes every request and stays at its frequency
};

/// Power and pace of the simulated work at one frequency.
struct WorkloadRow {
    int khz;
    double watts;
    double cycles_per_instruction;
    double lines_per_instruction;  // 64-byte memory lines
};

struct NodeShape {
    int model = 45;
    int sockets = 2;
    int cores = 4;                // per socket
    int threads = 2;              // per core
    std::vector<int> core_ids;    // by core of a socket; empty: 0, 1, 2, ...
    std::vector<int> socket_ids;  // by socket; empty: 0, 1, 2, ...
    int nonturbo_ratio = 20;      // bits 15..8 of register 0xCE
    std::vector<int> frequencies = {2667000, 2400000, 2133000, 1867000, 1600000};  // highest first
    FreqDriver driver = FreqDriver::kTable;
    uint64_t mcfg_base = 0x80000000;
    std::vector<WorkloadRow> workload;  // empty: counters and meter stand still

    [[nodiscard]] int cpus() const { return sockets * cores * threads; }
    // CPUs are numbered socket by socket, first the one thread of each core, then the other.
    [[nodiscard]] int socket_of(int cpu) const { return cpu / cores % sockets; }  // index, not id
    [[nodiscard]] int core_of(int cpu) const { return cpu % cores; }  // index within its socket
    [[nodiscard]] int first_cpu_of(int socket) const { return socket * cores; }
};

/// /proc/cpuinfo as the kernel prints it for this processor.
std::string cpuinfo_text(const NodeShape& shape);

/// The ACPI table whose first allocation starts at `base`.
std::string mcfg_table(uint64_t base);

/// Lines "khz watts cycles-per-instruction lines-per-instruction"; throws std::runtime_error.
std::vector<WorkloadRow> read_workload(const std::string& path);

}  // namespace eas::fake
