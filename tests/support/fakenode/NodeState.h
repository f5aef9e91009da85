// What a fake node knows and what it has seen: one block of memory shared by the test and the
// node's server. The server writes while it answers a request, a test reads and writes between
// requests.
#pragma once

#include <linux/perf_event.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "tests/support/fakenode/NodeShape.h"

namespace eas::fake {

constexpr int max_cpus = 2048;
constexpr int max_counters = 16384;

using CpuMask = std::array<uint64_t, max_cpus / 64>;

struct MsrRegister {
    uint32_t number;
    uint64_t value;
};

struct MsrAccess {
    int cpu;
    uint32_t reg;
    bool write;
    uint64_t value;
    CpuMask affinity;  // of the thread that asked
};

enum class MsrDevice { present, missing, short_reads };

/// A file write that reached cpufreq, refused or not.
struct FreqWrite {
    int cpu;  // number of the policy; -1: all of them
    std::array<char, 32> file;
    std::array<char, 32> text;
};

/// One perf_event_open that was answered with a descriptor, and what a read of it gives.
struct Counter {
    perf_event_attr attr;
    int pid;
    int cpu;
    int leader;
    unsigned long flags;
    std::array<uint64_t, 3> words;  // value, time enabled, time running; while no workload runs
    int running_percent;            // of the time that it is enabled
};

template <typename T, size_t size>
struct Log {
    std::array<T, size> rows;
    std::atomic<size_t> count;

    void add(const T& row) {
        if (count < size)
            rows[count++] = row;
    }
    const T* begin() const { return rows.data(); }
    const T* end() const { return rows.data() + count; }
    void clear() { count = 0; }
};

struct NodeState {
    std::array<std::array<MsrRegister, 96>, max_cpus> msrs;
    std::array<size_t, max_cpus> msr_count;
    MsrDevice msr_device;
    uint64_t msr_stray_bits;  // set in whatever is read, as reserved bits may be
    Log<MsrAccess, 4096> msr_log;
    int stray_lookups;  // of register devices of CPUs that are not there

    bool deaf;    // cpufreq takes every request and stays at its frequency
    int cap_khz;  // the hardware runs no faster, whatever was asked for; 0: none
    Log<FreqWrite, 4096> freq_log;

    Log<Counter, max_counters> counters;
    int running_percent;             // of every counter
    int counter_fails_at;            // index of the open that fails; -1: none
    int counter_error;               // its errno
    int (*refusal)(const Counter&);  // errno of an open, 0: none; null: nobody asks

    [[nodiscard]] uint64_t* find_msr(int cpu, uint32_t reg) {
        auto& table = msrs[static_cast<size_t>(cpu)];
        for (size_t i = 0; i < msr_count[static_cast<size_t>(cpu)]; ++i)
            if (table[i].number == reg)
                return &table[i].value;
        return nullptr;
    }

    /// False when the register map of that CPU is full.
    bool set_msr(int cpu, uint32_t reg, uint64_t value) {
        uint64_t* found = find_msr(cpu, reg);
        if (found == nullptr) {
            size_t& count = msr_count[static_cast<size_t>(cpu)];
            auto& table = msrs[static_cast<size_t>(cpu)];
            if (count == table.size())
                return false;
            table[count] = {reg, value};
            found = &table[count++].value;
        }
        *found = value;
        return true;
    }

    void log_write(int policy, const std::string& file, const std::string& text) {
        FreqWrite write{policy, {}, {}};
        file.copy(write.file.data(), write.file.size() - 1);
        text.copy(write.text.data(), write.text.size() - 1);
        freq_log.add(write);
    }

    /// Back to the power-on values of `shape`, logs emptied.
    void reset(const NodeShape& shape);
};

}  // namespace eas::fake
