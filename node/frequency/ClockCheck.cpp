#include "node/frequency/ClockCheck.h"

#include <linux/perf_event.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "base/Numbers.h"
#include "node/files/PseudoFile.h"
#include "node/frequency/Nominal.h"
#include "node/meter/CoreEvents.h"
#include "node/meter/DescriptorRoom.h"

namespace eas::node {
namespace {

constexpr EventCode core_cycles{PERF_TYPE_HARDWARE, PERF_COUNT_HW_CPU_CYCLES};
constexpr EventCode reference_cycles{PERF_TYPE_HARDWARE, PERF_COUNT_HW_REF_CPU_CYCLES};
constexpr const char* msr_pmu = "/sys/bus/event_source/devices/msr";

// By ticks of 10 ms a shorter period, or one with idle times in it, tells too little.
constexpr double least_seconds = 1.0;
constexpr double least_busy_share = 0.95;

double now() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// The events aperf and mperf of the PMU "msr"; none where it lacks one of them.
std::vector<EventCode> msr_events() {
    const auto type = read_number(std::string(msr_pmu) + "/type");
    std::vector<EventCode> codes;
    for (const char* name : {"aperf", "mperf"}) {
        const FileText event = read_text(std::string(msr_pmu) + "/events/" + name);
        if (!type || *type < 0 || event.text.rfind("event=0x", 0) != 0)
            return {};
        codes.push_back({static_cast<std::uint32_t>(*type),
                         std::strtoull(event.text.c_str() + 8, nullptr, 16)});
    }
    return codes;
}

/// Busy time of a CPU between two readings; 0 when one of them lacks it.
double seconds_between(const BusyTicks& before, const BusyTicks& after, int cpu) {
    const auto from = before.find(cpu);
    const auto to = after.find(cpu);
    if (from == before.end() || to == after.end() || to->second < from->second)
        return 0;
    return static_cast<double>(to->second - from->second) /
           static_cast<double>(::sysconf(_SC_CLK_TCK));
}

int nominal_of(const std::vector<Policy>& policies, int cpu, int otherwise) {
    for (const Policy& policy : policies)
        if (std::binary_search(policy.cpus.begin(), policy.cpus.end(), cpu))
            return policy.nominal;
    return otherwise;
}

}  // namespace

ClockCheck::ClockCheck(const NodeFrequency& frequency, int khz)
    : policies_(frequency.policies()), cpus_(frequency.cpus()), khz_(khz) {
    int source = EASNODE_NOMINAL_UNKNOWN;
    const int nominal = frequency.nominal(source);
    counted_.reserve(cpus_.size());
    for (const int cpu : cpus_)
        counted_.push_back({cpu, nominal_of(policies_, cpu, nominal), {}});
    const DescriptorRoom room;
    choose_source();
    began_ = now();
}

void ClockCheck::choose_source() {
    if (std::any_of(counted_.begin(), counted_.end(),
                    [](const Counted& one) { return one.nominal_khz <= 0; }))
        reason_ = "the nominal frequency is unknown";
    else if (open("ref-cycles", {core_cycles, reference_cycles}, true) ||
             open("aperf/mperf", msr_events(), false))
        return;
    by_busy_time_ = open("busy time", {core_cycles}, true);
    if (by_busy_time_)
        ticks_ = read_busy_ticks();
}

/// Opens `codes` on all CPUs; where one refuses, on none.
bool ClockCheck::open(const char* source, const std::vector<EventCode>& codes, bool of_core) {
    if (codes.empty())
        return false;
    const std::vector<CorePmu> pmus = of_core ? core_pmus() : std::vector<CorePmu>{};
    for (Counted& one : counted_) {
        std::vector<EventCode> here = codes;
        for (const CorePmu& pmu : pmus)
            if (std::binary_search(pmu.cpus.begin(), pmu.cpus.end(), one.cpu))
                for (EventCode& code : here)
                    code = pmu.of_this_kind(code);
        const int error = one.group.open(here.data(), here.size(), one.cpu);
        if (error == 0)
            continue;
        reason_ = why_no_event(std::string(source) + " on CPU " + decimal(one.cpu), error);
        for (Counted& opened : counted_)
            opened.group = PerfGroup();
        return false;
    }
    source_ = source;
    return true;
}

/// What was counted, CPU by CPU; those that gave no numbers are left out.
std::vector<CpuClock> ClockCheck::clocks(double seconds) {
    std::vector<CpuClock> found;
    const BusyTicks ticks = by_busy_time_ ? read_busy_ticks() : BusyTicks{};
    for (Counted& one : counted_) {
        const Progress progress = one.group.update();
        if (progress != Progress::counted && progress != Progress::scaled)
            continue;
        const auto& totals = one.group.totals();
        const double busy = by_busy_time_ ? seconds_between(ticks_, ticks, one.cpu)
                                          : static_cast<double>(totals[1]) / one.nominal_khz / 1000;
        const bool is_throughout = seconds >= least_seconds && busy >= least_busy_share * seconds;
        if (!by_busy_time_ || is_throughout)
            found.push_back({one.cpu, one.nominal_khz, static_cast<double>(totals[0]), busy});
    }
    return found;
}

ClockVerdict ClockCheck::end(std::string& text) {
    const double seconds = now() - began_;
    ClockVerdict verdict{EASNODE_CANNOT_TELL};
    if (*source_ == '\0') {
        text = reason_;
        return verdict;
    }
    const bool turbo = std::any_of(policies_.begin(), policies_.end(), [this](const Policy& one) {
        return is_turbo_entry(one.table, khz_);
    });
    verdict = judge(clocks(seconds), khz_, turbo, seconds);
    text = explain(verdict);
    return verdict;
}

std::string ClockCheck::explain(const ClockVerdict& verdict) const {
    if (verdict.verdict == EASNODE_CANNOT_TELL)
        return by_busy_time_ ? "no CPU was busy throughout for a second or more"
                             : "no CPU was busy for a tenth of the time";
    if (verdict.verdict == EASNODE_RUNS_AT)
        return {};
    for (const Policy& policy : policies_) {
        Settings now;
        Problem ignored;
        if (read_settings(policy, now, ignored) && (now.min != khz_ || now.max != khz_))
            return "cpu" + decimal(policy.cpu()) + " has the limits " + decimal(now.min) + " to " +
                   decimal(now.max) + " kHz now";
        const int limit = policy.bios_limit();
        if (limit > 0 && limit < khz_)
            return "the firmware limits cpu" + decimal(policy.cpu()) + " to " + decimal(limit) +
                   " kHz";
    }
    return verdict.mean_khz < khz_
               ? "a power or heat limit may hold the clock down, or the driver ignores the request"
               : "turbo or a neighbour's request may raise the clock, or the driver ignores it";
}

}  // namespace eas::node
