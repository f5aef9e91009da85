// What a fake node looks like: its processor, its files, its counters and the work it pretends to
// do. Plain data; kHz, W. Tests and profiles fill it, nothing here touches the machine. Nodes of
// today are files of `shapes/`; the processors whose registers the library programs itself are made
// from the numbers here.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/fakenode/NodeTree.h"

namespace eas::fake {

/// How the cpufreq driver of an old model behaves.
enum class FreqDriver {
    table,         // obeys: governors of its own plus "userspace"
    no_userspace,  // like a driver with internal governors: no "userspace", no table of frequencies
    deaf,          // takes every request and stays at its frequency
};

/// Power and pace of the simulated work at one frequency; straight lines between two rows.
struct WorkloadRow {
    int khz;
    double watts;
    double cycles_per_instruction;
    double lines_per_instruction;  // 64-byte memory lines
};

struct ShapeFile {
    std::string path;
    TreeEntry::Kind kind;
    mode_t mode;
    std::string text;
};

/// What an event of a PMU counts: `factor` times a quantity (see PerfEvents.cpp), divided among the
/// boxes of a socket that count the same.
struct CountRule {
    std::string pmu;  // a shell pattern
    uint64_t config;
    std::string quantity;
    double factor;
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
    FreqDriver driver = FreqDriver::table;
    uint64_t mcfg_base = 0x80000000;
    std::vector<WorkloadRow> workload;  // empty: counters and meter stand still

    std::string vendor = "GenuineIntel", model_name = "Intel(R) Xeon(R) CPU E5-2680 0 @ 2.70GHz";
    int family = 6;
    bool old_model = true;  // has registers, physical memory, the meter qpx.1, one policy a CPU
    std::vector<ShapeFile> files;  // beside and instead of what is made from the numbers
    std::vector<CountRule> counts;
    std::map<std::string, int> slots;  // PMU: events that a box counts at once
    std::map<std::string, double> shares = {{"power_meter", 1}};  // of the watts
    int nominal_khz = 0;   // speed of reference cycles, ceiling without turbo; 0: base_frequency
    int turbo_khz = 0;     // what the highest entry of a list means while turbo is on; 0: itself
    int perf_refusal = 0;  // errno of every perf_event_open

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

/// A shape by its name in `shapes/`, by the path of such a file, or of an archive FILE.tar.gz that
/// `easctl node gather` wrote; throws std::runtime_error that names file and line.
NodeShape read_shape(const std::string& name);

/// The files of the node at rest, under an empty root.
void plant(const NodeShape& shape, TreeEntry& root);

}  // namespace eas::fake
