#include "common/node/CpuTopology.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/UniqueFile.h"
#include "common/node/CpuinfoLine.h"
#include "common/node/EnergyUtil.h"
#include "common/node/Msr.h"

cpuinfo_t cinfo{};

namespace {

constexpr int REJECTED = -2;
constexpr std::uint32_t MSR_PLATFORM_INFO = 0xCE;  // bits 15:8: maximum non-turbo ratio
constexpr int NEHALEM_CLIENT = 30;                 // the same uncore as model 26, stored as that

// What a model number of family 6 stands for here.
struct ProcessorModel {
    int model;
    bool sampled;             // its counters can be programmed
    std::uint64_t bus_clock;  // Hz, unit of the ratios in MSR 0xCE
};

constexpr std::uint64_t CLOCK_100 = 100000000;
constexpr std::uint64_t CLOCK_133 = 133333333;

constexpr std::array<ProcessorModel, 11> MODELS = {{
    {23, false, CLOCK_133},  // 0x17, before the integrated memory controller
    {26, true, CLOCK_133},   // 0x1A, uncore registers
    {28, false, CLOCK_133},  // 0x1C, low-power core without an uncore
    {30, true, CLOCK_133},   // 0x1E, uncore registers
    {37, true, CLOCK_133},   // 0x25, uncore registers
    {42, true, CLOCK_100},   // 0x2A, client: no memory counters used
    {44, true, CLOCK_133},   // 0x2C, uncore registers
    {45, true, CLOCK_100},   // 0x2D, memory-controller registers
    {46, true, CLOCK_133},   // 0x2E, no memory counters used
    {47, true, CLOCK_133},   // 0x2F, uncore box registers
    {62, true, CLOCK_100},   // 0x3E, memory-controller registers
}};

const ProcessorModel* find_model(int model) noexcept {
    const auto* found = std::find_if(MODELS.begin(), MODELS.end(),
                                     [model](const auto& row) { return row.model == model; });
    return found == MODELS.end() ? nullptr : found;
}

// Reads the lines of /proc/cpuinfo into `cinfo` and keeps what the core count needs.
class TopologyReader {
  public:
    TopologyReader() {
        physical_id_.fill(-1);
        core_id_.fill(-1);
    }

    // False: the processor is rejected.
    bool take_line(std::string_view line);
    void count_cores() const;
    [[nodiscard]] bool beyond_limits() const noexcept { return beyond_limits_; }

  private:
    bool take_processor(std::string_view line);
    bool take_physical_id(std::string_view line);
    bool take_core_id(std::string_view line);
    [[nodiscard]] int cores_of_socket(int socket) const;

    bool within(int value, int limit) noexcept {
        beyond_limits_ = value < 0 || value >= limit;
        return !beyond_limits_;
    }

    int cpu_ = -1;
    int core_ = -1;
    int socket_ = -1;
    bool beyond_limits_ = false;
    std::array<int, MAX_CPUS> physical_id_{};
    std::array<int, MAX_CPUS> core_id_{};
};

bool TopologyReader::take_processor(std::string_view line) {
    const bool parsed = eas::parse_field(line, "processor", cpu_);
    if (!within(cinfo.numThreads, MAX_CPUS))
        return false;
    cinfo.numThreads += 1;
    return !parsed || within(cpu_, MAX_CPUS);
}

bool TopologyReader::take_physical_id(std::string_view line) {
    eas::parse_field(line, "physical id", socket_);
    if (!within(cpu_, MAX_CPUS) || !within(socket_, MAX_SOCKETS))
        return false;
    physical_id_[static_cast<std::size_t>(cpu_)] = socket_;
    if (cinfo.cpuId[socket_] == -1) {
        cinfo.SId[cinfo.numSockets] = socket_;
        cinfo.cpuId[socket_] = cpu_;
        cinfo.numSockets += 1;
    }
    return true;
}

bool TopologyReader::take_core_id(std::string_view line) {
    eas::parse_field(line, "core id", core_);
    if (!within(cpu_, MAX_CPUS) || !within(core_, MAX_CORE_IDS))
        return false;
    core_id_[static_cast<std::size_t>(cpu_)] = core_;
    return true;
}

bool take_model(std::string_view line) {
    eas::parse_field(line, "model", cinfo.model);
    if (cinfo.model == NEHALEM_CLIENT)
        cinfo.model = 26;
    return find_model(cinfo.model) != nullptr;
}

// The lines that tell what processor 0 is.
bool take_identity(std::string_view line) {
    using eas::has_key;
    if (has_key(line, "vendor_id"))
        return eas::word_field(line, "vendor_id") == "GenuineIntel";
    if (has_key(line, "cpu family")) {
        eas::parse_field(line, "cpu family", cinfo.family);
        return cinfo.family == 6;
    }
    return !has_key(line, "model") || take_model(line);
}

bool TopologyReader::take_line(std::string_view line) {
    using eas::has_key;
    if (has_key(line, "processor"))
        return take_processor(line);
    if (has_key(line, "physical id"))
        return take_physical_id(line);
    if (has_key(line, "core id"))
        return take_core_id(line);
    return cpu_ != 0 || take_identity(line);
}

// Core ids are looked up by id but stored by position: exact for ids without gaps; where a
// processor numbers its cores with gaps, a hyper-threaded core may count twice. The counts of
// earlier releases, and so the node-wide counters, rest on it.
int TopologyReader::cores_of_socket(int socket) const {
    std::array<int, MAX_CORE_IDS> cores_on_that_socket{};
    cores_on_that_socket.fill(-1);
    std::size_t cores = 0;
    for (int cpu = 0; cpu < cinfo.numThreads; ++cpu) {
        const auto index = static_cast<std::size_t>(cpu);
        if (physical_id_[index] != socket)
            continue;
        cinfo.socketId[cpu] = socket;
        const int core = core_id_[index];
        if (core < 0 || cores_on_that_socket[static_cast<std::size_t>(core)] != -1)
            continue;
        cores_on_that_socket[cores] = core;  // never full: a full table holds every id
        ++cores;
    }
    return static_cast<int>(cores);
}

void TopologyReader::count_cores() const {
    for (int s = 0; s < cinfo.numSockets; ++s)
        cinfo.numCores += cores_of_socket(cinfo.SId[s]);
    if (cinfo.numCores > 0)
        cinfo.threads_per_core = cinfo.numThreads / cinfo.numCores;
}

void start_topology() {
    cinfo = cpuinfo_t{};
    cinfo.threads_per_core = 1;
    std::fill(std::begin(cinfo.cpuId), std::end(cinfo.cpuId), -1);
    std::fill(std::begin(cinfo.SId), std::end(cinfo.SId), -1);
    std::fill(std::begin(cinfo.socketId), std::end(cinfo.socketId), -1);
}

}  // namespace

namespace eas {

int read_topology(std::FILE* cpuinfo) {
    start_topology();
    TopologyReader reader;
    std::array<char, 1024> line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), cpuinfo) != nullptr) {
        if (reader.take_line(line.data()))
            continue;
        // Callers look at family and model only: a node that the record cannot hold has none.
        if (reader.beyond_limits())
            start_topology();
        return REJECTED;
    }
    reader.count_cores();
    return 0;
}

bool can_be_sampled(const cpuinfo_t& processors) noexcept {
    if (processors.family != 6)
        return false;
    const ProcessorModel* model = find_model(processors.model);
    return model != nullptr && model->sampled;
}

}  // namespace eas

int discover_topology() {
    eas::UniqueFile cpuinfo = eas::open_for_reading(PROC_CPUINFO_PATH);
    if (!cpuinfo)
        return -1;
    const int result = eas::read_topology(cpuinfo.get());
    cpuinfo.reset();
    if (result != 0)
        return result;
    const std::uint64_t info = eas::register_or_zero(0, MSR_PLATFORM_INFO);
    const ProcessorModel* model = find_model(cinfo.model);
    const std::uint64_t bus_clock = model != nullptr ? model->bus_clock : CLOCK_133;
    cinfo.nominal_frequency = (info >> 8 & 0xFF) * bus_clock;
    return 0;
}

int supported_platform() {
    if (checkmsr() != 0)
        return 0;
    discover_topology();  // what it refuses has no supported family and model
    return eas::can_be_sampled(cinfo) ? 1 : 0;
}

cpu_set_t bind_this_thread(int cpu_id) {
    cpu_set_t old_set;
    CPU_ZERO(&old_set);
    sched_getaffinity(0, sizeof old_set, &old_set);
    cpu_set_t new_set;
    CPU_ZERO(&new_set);
    CPU_SET(static_cast<unsigned>(cpu_id), &new_set);
    sched_setaffinity(0, sizeof new_set, &new_set);
    return old_set;
}

int unbind_this_thread(cpu_set_t oset) {
    return sched_setaffinity(0, sizeof oset, &oset);
}
