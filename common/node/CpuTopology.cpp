#include "common/node/CpuTopology.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/UniqueFile.h"
#include "common/node/CpuinfoLine.h"
#include "common/node/EnergyUtil.h"
#include "common/node/Msr.h"
#include "common/node/ProcessorModel.h"

cpuinfo_t cinfo{};

namespace {

constexpr int rejected = -2;
constexpr std::uint32_t msr_platform_info = 0xCE;  // bits 15:8: maximum non-turbo ratio
constexpr int client_model = 30;                   // the same uncore as model 26, stored as that

cpuinfo_t blank_record() {
    cpuinfo_t blank{};
    blank.threads_per_core = 1;
    std::fill(std::begin(blank.cpuId), std::end(blank.cpuId), -1);
    std::fill(std::begin(blank.SId), std::end(blank.SId), -1);
    std::fill(std::begin(blank.socketId), std::end(blank.socketId), -1);
    return blank;
}

// Makes a record of the lines of /proc/cpuinfo and keeps what the core count needs.
class TopologyReader {
  public:
    TopologyReader() {
        physical_id_.fill(-1);
        core_id_.fill(-1);
    }

    // False: the processor is rejected.
    bool take_line(std::string_view line);
    void count_cores();
    [[nodiscard]] bool beyond_limits() const noexcept { return beyond_limits_; }
    [[nodiscard]] const cpuinfo_t& record() const noexcept { return record_; }

  private:
    bool take_processor(std::string_view line);
    bool take_physical_id(std::string_view line);
    bool take_core_id(std::string_view line);
    bool take_identity(std::string_view line);
    bool take_model(std::string_view line);
    [[nodiscard]] int cores_of_socket(int socket);

    bool within(int value, int limit) noexcept {
        beyond_limits_ = value < 0 || value >= limit;
        return !beyond_limits_;
    }

    cpuinfo_t record_ = blank_record();
    int cpu_ = -1;
    int core_ = -1;
    int socket_ = -1;
    bool beyond_limits_ = false;
    std::array<int, max_cpus> physical_id_{};
    std::array<int, max_cpus> core_id_{};
};

bool TopologyReader::take_processor(std::string_view line) {
    const bool parsed = eas::parse_field(line, "processor", cpu_);
    if (!within(record_.numThreads, max_cpus))
        return false;
    record_.numThreads += 1;
    return !parsed || within(cpu_, max_cpus);
}

bool TopologyReader::take_physical_id(std::string_view line) {
    eas::parse_field(line, "physical id", socket_);
    if (!within(cpu_, max_cpus) || !within(socket_, max_sockets))
        return false;
    physical_id_[static_cast<std::size_t>(cpu_)] = socket_;
    if (record_.cpuId[socket_] == -1) {
        record_.SId[record_.numSockets] = socket_;
        record_.cpuId[socket_] = cpu_;
        record_.numSockets += 1;
    }
    return true;
}

bool TopologyReader::take_core_id(std::string_view line) {
    eas::parse_field(line, "core id", core_);
    if (!within(cpu_, max_cpus) || !within(core_, max_core_ids))
        return false;
    core_id_[static_cast<std::size_t>(cpu_)] = core_;
    return true;
}

bool TopologyReader::take_model(std::string_view line) {
    eas::parse_field(line, "model", record_.model);
    if (record_.model == client_model)
        record_.model = 26;
    return eas::find_model(record_.model) != nullptr;
}

// The lines that tell what processor 0 is.
bool TopologyReader::take_identity(std::string_view line) {
    using eas::has_key;
    if (has_key(line, "vendor_id"))
        return eas::word_field(line, "vendor_id") == "GenuineIntel";
    if (has_key(line, "cpu family")) {
        eas::parse_field(line, "cpu family", record_.family);
        return record_.family == 6;
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
int TopologyReader::cores_of_socket(int socket) {
    std::array<int, max_core_ids> cores_on_that_socket{};
    cores_on_that_socket.fill(-1);
    std::size_t cores = 0;
    for (int cpu = 0; cpu < record_.numThreads; ++cpu) {
        const auto index = static_cast<std::size_t>(cpu);
        if (physical_id_[index] != socket)
            continue;
        record_.socketId[cpu] = socket;
        const int core = core_id_[index];
        if (core < 0 || cores_on_that_socket[static_cast<std::size_t>(core)] != -1)
            continue;
        cores_on_that_socket[cores] = core;  // never full: a full table holds every id
        ++cores;
    }
    return static_cast<int>(cores);
}

void TopologyReader::count_cores() {
    for (int s = 0; s < record_.numSockets; ++s)
        record_.numCores += cores_of_socket(record_.SId[s]);
    if (record_.numCores > 0)
        record_.threads_per_core = record_.numThreads / record_.numCores;
}

}  // namespace

namespace eas {

TopologyReading read_topology(std::FILE* cpuinfo) {
    TopologyReader reader;
    std::array<char, 1024> line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), cpuinfo) != nullptr) {
        if (reader.take_line(line.data()))
            continue;
        // Callers look at family and model only: a node that the record cannot hold has none.
        return {rejected, reader.beyond_limits() ? blank_record() : reader.record()};
    }
    reader.count_cores();
    return {0, reader.record()};
}

std::uint64_t nominal_clock(const cpuinfo_t& processors) {
    const std::uint64_t info = register_or_zero(0, msr_platform_info);
    const ProcessorModel* model = find_model(processors.model);
    return (info >> 8 & 0xFF) * (model != nullptr ? model->bus_clock : clock_133);
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
    const auto [result, processors] = eas::read_topology(cpuinfo.get());
    cpuinfo.reset();
    cinfo = processors;
    if (result == 0)
        cinfo.nominal_frequency = eas::nominal_clock(cinfo);
    return result;
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
