// The files that answer as devices do: model-specific registers (8 bytes wide, 1 apart), cpufreq
// attributes (a store replaces the value and may be refused), event counters, the energy meter.
#define FUSE_USE_VERSION 31
#include <fuse.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "tests/support/fakenode/NodeServer.h"

namespace eas::fake {
namespace {

using Lock = std::lock_guard<std::mutex>;

NodeServer& server() {
    return *static_cast<NodeServer*>(fuse_get_context()->private_data);
}
CpuFrequency& policy(int cpu) {
    return server().state.cpufreq[static_cast<size_t>(cpu)];
}
bool in_userspace(int cpu) {
    return std::strcmp(policy(cpu).governor.data(), "userspace") == 0;
}
std::string line(int value) {
    return std::to_string(value) + "\n";
}

// ---- cpufreq ----

std::string_view governors() {
    return server().state.driver == FreqDriver::kNoUserspace
               ? "performance powersave"
               : "conservative ondemand userspace powersave performance schedutil";
}

const char* driver_name() {
    constexpr const char* kNames[] = {"acpi-cpufreq", "intel_pstate", "intel_cpufreq"};
    return kNames[static_cast<int>(server().state.driver)];
}

std::string frequency_list() {
    std::string text;
    for (const int khz : server().shape.frequencies)
        text += std::to_string(khz) + " ";
    return text + "\n";
}

std::string show_speed(int cpu) {
    return in_userspace(cpu) ? line(policy(cpu).current) : std::string("<unsupported>\n");
}

/// The lowest frequency of the table that is not below `khz`, as the userspace governor chooses.
int step_for(int khz) {
    const auto& table = server().shape.frequencies;
    int step = table.front();
    for (const int candidate : table)
        if (candidate >= khz)
            step = candidate;
    return step;
}

void run_at(int cpu, int khz) {
    if (server().state.driver != FreqDriver::kDeaf)
        policy(cpu).current = step_for(std::clamp(khz, policy(cpu).min, policy(cpu).max));
}

int store_governor(int cpu, const std::string& text) {
    std::array<char, 16> word{};
    if (std::sscanf(text.c_str(), "%15s", word.data()) != 1)
        return -EINVAL;
    if ((" " + std::string(governors()) + " ").find(" " + std::string(word.data()) + " ") ==
        std::string::npos)
        return -EINVAL;
    policy(cpu).governor = word;
    if (std::strcmp(word.data(), "performance") == 0)
        run_at(cpu, policy(cpu).max);
    if (std::strcmp(word.data(), "powersave") == 0)
        run_at(cpu, policy(cpu).min);
    return 0;
}

int store_speed(int cpu, const std::string& text) {
    int khz = 0;
    if (!in_userspace(cpu) || std::sscanf(text.c_str(), "%d", &khz) != 1)
        return -EINVAL;
    run_at(cpu, khz);
    return 0;
}

int store_limit(int cpu, const std::string& text, bool upper) {
    int khz = 0;
    if (std::sscanf(text.c_str(), "%d", &khz) != 1)
        return -EINVAL;
    CpuFrequency& limits = policy(cpu);
    const auto& table = server().shape.frequencies;
    khz = std::clamp(khz, table.back(), table.front());
    if (upper)
        limits.max = khz;
    limits.min = std::min(upper ? limits.min : khz, limits.max);
    run_at(cpu, limits.current);
    return 0;
}

struct FreqFile {
    const char* name;
    std::string (*show)(int cpu);
    int (*store)(int cpu, const std::string& text);  // null: read-only
};

constexpr FreqFile kFreqFiles[] = {
    {"scaling_available_frequencies", [](int) { return frequency_list(); }, nullptr},
    {"scaling_available_governors", [](int) { return std::string(governors()) + " \n"; }, nullptr},
    {"scaling_cur_freq", [](int cpu) { return line(policy(cpu).current); }, nullptr},
    {"scaling_driver", [](int) { return std::string(driver_name()) + "\n"; }, nullptr},
    {"scaling_governor", [](int cpu) { return std::string(policy(cpu).governor.data()) + "\n"; },
     store_governor},
    {"scaling_max_freq", [](int cpu) { return line(policy(cpu).max); },
     [](int cpu, const std::string& text) { return store_limit(cpu, text, true); }},
    {"scaling_min_freq", [](int cpu) { return line(policy(cpu).min); },
     [](int cpu, const std::string& text) { return store_limit(cpu, text, false); }},
    {"scaling_setspeed", show_speed, store_speed},
};

const FreqFile* find_freq_file(std::string_view name) {
    if (server().state.driver == FreqDriver::kNoUserspace &&
        name == "scaling_available_frequencies")
        return nullptr;
    for (const FreqFile& file : kFreqFiles)
        if (name == file.name)
            return &file;
    return nullptr;
}

// ---- paths ----

enum class Kind { kNone, kFolder, kMsr, kFreq, kCounter, kMeter };

struct Entry {
    Kind kind = Kind::kNone;
    int index = 0;
    const FreqFile* freq = nullptr;
};

bool is_cpu(int cpu) {
    return cpu >= 0 && cpu < server().shape.cpus();
}

Entry find(const char* path) {
    const std::string_view text = path;
    for (const char* folder : {"/", "/msr", "/cpufreq", "/counter", "/meter"})
        if (text == folder)
            return {Kind::kFolder};
    if (text == "/meter/energy1_input")
        return {Kind::kMeter};
    Entry entry;
    std::array<char, 40> name{};
    if (std::sscanf(path, "/counter/%d", &entry.index) == 1) {
        entry.kind = Kind::kCounter;
    } else if (const int got = std::sscanf(path, "/msr/%d/%39s", &entry.index, name.data());
               got >= 1) {
        if (!is_cpu(entry.index)) {
            ++server().state.stray_lookups;
            return {};
        }
        const bool device = std::strcmp(name.data(), "msr") == 0 &&
                            server().state.msr_device != MsrDevice::kMissing;
        entry.kind = got == 1 ? Kind::kFolder : device ? Kind::kMsr : Kind::kNone;
    } else if (const int parts =
                   std::sscanf(path, "/cpufreq/policy%d/%39s", &entry.index, name.data());
               parts >= 1 && is_cpu(entry.index)) {
        entry.freq = find_freq_file(name.data());
        entry.kind = parts == 1 ? Kind::kFolder : entry.freq ? Kind::kFreq : Kind::kNone;
    }
    return entry;
}

int get_attributes(const char* path, struct stat* out, fuse_file_info*) {
    const Entry entry = find(path);
    *out = {};
    out->st_nlink = 1;
    out->st_size = 4096;
    const bool folder = entry.kind == Kind::kFolder;
    out->st_mode = folder ? S_IFDIR | 0755 : S_IFREG | (entry.kind == Kind::kMsr ? 0600 : 0644);
    return entry.kind == Kind::kNone ? -ENOENT : 0;
}

int open_file(const char*, fuse_file_info* info) {
    info->direct_io = 1;  // every read and write arrives here, at its own offset and length
    return 0;
}

int truncate_file(const char*, off_t, fuse_file_info*) {
    return 0;
}

// ---- reads and writes ----

void log_access(int cpu, off_t reg, bool write, uint64_t value) {
    server().state.msr_log.add({cpu, static_cast<uint32_t>(reg), write, value,
                                server().affinity_of(fuse_get_context()->pid)});
}

int read_msr(int cpu, char* buf, size_t size, off_t reg) {
    if (size % sizeof(uint64_t) != 0)
        return -EINVAL;
    const uint64_t* value = server().state.find_msr(cpu, static_cast<uint32_t>(reg));
    log_access(cpu, reg, false, value != nullptr ? *value : 0);
    if (value == nullptr)
        return -EIO;
    const size_t length = server().state.msr_device == MsrDevice::kShortReads ? 4 : sizeof *value;
    const uint64_t seen = *value | server().state.msr_stray_bits;
    std::memcpy(buf, &seen, length);
    return static_cast<int>(length);
}

int write_msr(int cpu, const char* buf, size_t size, off_t reg) {
    if (size != sizeof(uint64_t))
        return -EINVAL;
    uint64_t value = 0;
    std::memcpy(&value, buf, sizeof value);
    log_access(cpu, reg, true, value);
    return server().state.set_msr(cpu, static_cast<uint32_t>(reg), value) ? 8 : -EIO;
}

int read_counter(const Counter& counter, char* buf, size_t size) {
    std::array<uint64_t, 3> words = counter.words;
    if (server().workload.active()) {
        const double total = server().workload.total(counter.attr) - counter.opened_at;
        const int sharers = counter.pid == -1 ? server().shape.sockets * server().shape.cores : 1;
        words = {static_cast<uint64_t>(total / sharers), 1, 1};
    }
    if (size < sizeof words)
        return -ENOSPC;
    std::memcpy(buf, words.data(), sizeof words);
    return static_cast<int>(sizeof words);
}

int read_text(const std::string& text, char* buf, size_t size, off_t offset) {
    const size_t from = std::min(static_cast<size_t>(offset), text.size());
    const size_t length = std::min(size, text.size() - from);
    std::memcpy(buf, text.data() + from, length);
    return static_cast<int>(length);
}

int read_file(const char* path, char* buf, size_t size, off_t offset, fuse_file_info*) {
    const Lock lock(server().mutex);
    server().workload.advance();
    const Entry entry = find(path);
    switch (entry.kind) {
        case Kind::kMsr:
            return read_msr(entry.index, buf, size, offset);
        case Kind::kFreq:
            return read_text(entry.freq->show(entry.index), buf, size, offset);
        case Kind::kMeter:
            return read_text(
                std::to_string(static_cast<uint64_t>(server().workload.joules() * 1e6)) + "\n", buf,
                size, offset);
        case Kind::kCounter:
            return read_counter(server().state.counters.rows[static_cast<size_t>(entry.index)], buf,
                                size);
        default:
            return -EISDIR;
    }
}

int write_file(const char* path, const char* buf, size_t size, off_t offset, fuse_file_info*) {
    const Lock lock(server().mutex);
    server().workload.advance();
    const Entry entry = find(path);
    if (entry.kind == Kind::kMsr)
        return write_msr(entry.index, buf, size, offset);
    if (entry.kind != Kind::kFreq || entry.freq->store == nullptr)
        return -EINVAL;
    const std::string text(buf, size);
    FreqWrite write{entry.index, {}, {}};
    std::strncpy(write.file.data(), entry.freq->name, write.file.size() - 1);
    text.copy(write.text.data(), write.text.size() - 1);
    server().state.freq_log.add(write);
    const int refused = entry.freq->store(entry.index, text);
    return refused != 0 ? refused : static_cast<int>(size);
}

void* start(fuse_conn_info*, fuse_config* config) {
    config->attr_timeout = config->entry_timeout = config->negative_timeout = 0;
    return fuse_get_context()->private_data;
}

}  // namespace

::fuse* mount_files(NodeServer& node, const std::string& mount_point) {
    fuse_operations calls{};
    calls.init = start;
    calls.getattr = get_attributes;
    calls.open = open_file;
    calls.truncate = truncate_file;
    calls.read = read_file;
    calls.write = write_file;
    std::string name = "fakenode", option = "-o";
    std::string options = "allow_other,default_permissions,fsname=fakenode";
    std::array<char*, 3> words = {name.data(), option.data(), options.data()};
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(words.size()), words.data());
    ::fuse* files = fuse_new(&args, &calls, sizeof calls, &node);
    fuse_opt_free_args(&args);
    if (files != nullptr && fuse_mount(files, mount_point.c_str()) != 0) {
        fuse_destroy(files);
        return nullptr;
    }
    return files;
}

void serve_files(::fuse* files) {
    fuse_loop(files);
}

}  // namespace eas::fake
