// Cycles and instructions by perf events; and last-level cache misses, which are an estimate of
// memory traffic for whoever asks for one.
#include <linux/perf_event.h>

#include <cerrno>

#include "base/Numbers.h"
#include "node/files/PseudoFile.h"
#include "node/meter/CoreEvents.h"
#include "node/topology/Processor.h"

namespace eas::node {
namespace {

// In this order: cycles lead the group, instructions follow.
constexpr EventCode cycles_code = {PERF_TYPE_HARDWARE, PERF_COUNT_HW_CPU_CYCLES};
constexpr EventCode instructions_code = {PERF_TYPE_HARDWARE, PERF_COUNT_HW_INSTRUCTIONS};
constexpr EventCode core_codes[] = {cycles_code, instructions_code};
constexpr EventSet core_events = {core_codes, 2, "cycles and instructions"};

constexpr std::uint64_t cache_miss(std::uint64_t operation) {
    return PERF_COUNT_HW_CACHE_LL | operation << 8 |
           std::uint64_t{PERF_COUNT_HW_CACHE_RESULT_MISS} << 16;
}
// Misses of reads and of writes, where the processor tells them apart.
constexpr EventCode cache_codes[] = {
    {PERF_TYPE_HW_CACHE, cache_miss(PERF_COUNT_HW_CACHE_OP_READ)},
    {PERF_TYPE_HW_CACHE, cache_miss(PERF_COUNT_HW_CACHE_OP_WRITE)},
};
constexpr EventSet cache_events = {cache_codes, 2, "last-level cache misses"};
// Else all of them together.
constexpr EventCode miss_codes[] = {{PERF_TYPE_HARDWARE, PERF_COUNT_HW_CACHE_MISSES}};
constexpr EventSet miss_events = {miss_codes, 1, "cache misses"};

constexpr const char* line_size_file =
    "/sys/devices/system/cpu/cpu0/cache/index0/coherency_line_size";
constexpr long long usual_line_size = 64;

void give_counts(const EventTotals& totals, Result& result) {
    result.quality = totals.scaled ? EASNODE_SCALED : EASNODE_COUNTED;
    result.values = {static_cast<double>(totals.values[0]), static_cast<double>(totals.values[1])};
}

/// A virtual machine may offer counters that never move.
void check_that_it_moves(std::uint64_t cycles, std::uint64_t instructions, Result& result) {
    if (cycles == 0 || instructions == 0)
        result.wait_for("the counters have not moved since the meter was opened");
}

class NodeCores : public Source {
  public:
    bool open(std::string& reason) {
        coverage_ = {EASNODE_NODE, "every online CPU", 0};
        return cpus_.open(core_events, reason);
    }

    void read(Nanoseconds, Result& result) override {
        EventTotals totals;
        if (!cpus_.read(totals, result))
            return;
        give_counts(totals, result);
        check_that_it_moves(totals.values[0], totals.values[1], result);
    }

  private:
    CpuEvents cpus_;
};

class ProcessCores : public Source {
  public:
    bool open(pid_t process, std::string& reason) {
        if (!tasks_.open(core_events, process, reason))
            return false;
        const std::string who = "process " + decimal(process) + " and what it starts";
        coverage_ = tasks_.user_only()
                        ? Coverage{EASNODE_PROCESS_USER, who + ", without the kernel's part", 0}
                        : Coverage{EASNODE_PROCESS, who, 0};
        return true;
    }

    // A process that has not run since has rightly counted 0.
    void read(Nanoseconds, Result& result) override {
        EventTotals totals;
        if (!tasks_.read(totals, result))
            return;
        give_counts(totals, result);
    }

  private:
    TaskEvents tasks_;
};

class CacheMisses : public Source {
  public:
    bool open(std::string& reason) {
        coverage_ = {EASNODE_CACHE_MISSES,
                     "ESTIMATE from cache misses x line size, not memory traffic", 0};
        line_size_ = static_cast<double>(read_number(line_size_file).value_or(usual_line_size));
        if (cpus_.open(cache_events, reason))
            return true;
        // AMD's event of that name counts misses of the caches before the last level.
        return read_processor().vendor == Vendor::intel && cpus_.open(miss_events, reason);
    }

    void read(Nanoseconds, Result& result) override {
        EventTotals totals;
        if (!cpus_.read(totals, result))
            return;
        result.quality = EASNODE_ESTIMATED;
        const std::uint64_t misses = totals.values[0] + totals.values[1];
        result.values[0] = static_cast<double>(misses) * line_size_;
        check_that_it_moves(misses, misses, result);
    }

  private:
    CpuEvents cpus_;
    double line_size_ = 0;
};

}  // namespace

std::unique_ptr<Source> open_core_events(const Request& request, std::string& reason) {
    if (request.process != 0) {
        auto source = std::make_unique<ProcessCores>();
        return source->open(request.process, reason) ? std::move(source) : nullptr;
    }
    auto source = std::make_unique<NodeCores>();
    return source->open(reason) ? std::move(source) : nullptr;
}

std::unique_ptr<Source> open_cache_misses(const Request&, std::string& reason) {
    auto source = std::make_unique<CacheMisses>();
    return source->open(reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
