// The node's CPUs and hardware threads, as EnergyUtil tells them from /proc/cpuinfo.
#include "common/node/NodeThreads.h"

#include <algorithm>
#include <array>
#include <climits>
#include <new>
#include <string_view>

#include "base/CancelState.h"
#include "base/UniqueFile.h"
#include "common/node/CpuinfoLine.h"
#include "common/node/EnergyUtil.h"

int EnergyUtil::cpu_threads_num = 0;

namespace {

// Longer lines come in pieces; the keys that are looked for stand in short ones.
using Line = std::array<char, 64>;

bool next_line(std::FILE* file, Line& line) {
    return std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr;
}

int number_or_zero(std::string_view line) {
    int number = 0;
    eas::parse_after_colon(line, number);
    return number;
}

// Figures of the node, gathered line by line.
struct ThreadFigures {
    std::array<bool, 256> socket_present{};
    int siblings = -1;
    int cores = -1;
    bool found = false;

    void take_line(std::string_view line, int cpuid) {
        using eas::has_key;
        if (has_key(line, "physical id")) {
            const int id = number_or_zero(line);
            if (id >= 0 && id < 256)
                socket_present[static_cast<std::size_t>(id)] = true;
        } else if (found) {
            take_counts(line);
        } else if (has_key(line, "processor")) {
            found = number_or_zero(line) == cpuid;
        }
    }

    void take_counts(std::string_view line) {
        if (siblings != -1 && cores != -1)
            return;
        if (eas::has_key(line, "siblings")) {
            eas::parse_after_colon(line, siblings);
        } else if (eas::has_key(line, "cpu cores")) {
            eas::parse_after_colon(line, cores);
        }
    }

    [[nodiscard]] int total() const {
        if (cores < 1 || siblings < 1)
            return -1;
        const auto sockets = std::count(socket_present.begin(), socket_present.end(), true);
        // Threads per core first, truncated: siblings that are no multiple of the cores are not
        // all counted.
        const long threads = siblings / cores * (cores * static_cast<long>(sockets));
        return threads <= INT_MAX ? static_cast<int>(threads) : -1;
    }
};

}  // namespace

namespace eas {

void append_cpu_ids(std::FILE* cpuinfo, std::vector<int>& cpuids) {
    Line line{};
    while (next_line(cpuinfo, line)) {
        if (has_key(line.data(), "processor"))
            cpuids.push_back(number_or_zero(line.data()));
    }
}

int count_node_threads(std::FILE* cpuinfo, int cpuid) {
    ThreadFigures figures;
    Line line{};
    while (next_line(cpuinfo, line))
        figures.take_line(line.data(), cpuid);
    return figures.total();
}

}  // namespace eas

int EnergyUtil::get_all_cpu_ids(std::vector<int>& cpuids) {
    const eas::DeferCancellation deferred;
    const eas::UniqueFile cpuinfo = eas::open_for_reading(PROC_CPUINFO_PATH);
    if (!cpuinfo)
        return -1;
    const std::size_t before = cpuids.size();
    try {
        eas::append_cpu_ids(cpuinfo.get(), cpuids);
    } catch (const std::bad_alloc&) {
        cpuids.resize(before);
        return -1;
    }
    return cpuids.empty() ? -1 : 1;
}

int EnergyUtil::get_node_threads(int cpuid) {
    if (cpu_threads_num >= 1)
        return cpu_threads_num;
    const eas::DeferCancellation deferred;
    const eas::UniqueFile cpuinfo = eas::open_for_reading(PROC_CPUINFO_PATH);
    if (!cpuinfo)
        return -1;
    const int threads = eas::count_node_threads(cpuinfo.get(), cpuid);
    if (threads < 1)
        return -1;
    cpu_threads_num = threads;
    return threads;
}
