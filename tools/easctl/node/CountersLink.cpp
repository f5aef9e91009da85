#include "tools/easctl/node/CountersLink.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

#include "base/UniqueFd.h"
#include "common/node/CoreCounters.h"
#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/cli/Signals.h"

namespace easctl {
namespace {

constexpr const char* msr_device = "/dev/cpu/0/msr";
constexpr const char* core_link = "core counters of gethwrusage";
constexpr double trial_seconds = 0.02;

/// The share of the time that the events spent on a hardware counter, after a short trial; 1 where
/// that cannot be told.
double share_on_hardware(const std::vector<eas::UniqueFd>& counters) {
    for (const double until = monotonic_seconds() + trial_seconds; monotonic_seconds() < until;) {
    }
    double share = 1;
    for (const eas::UniqueFd& counter : counters) {
        perf_counts_values counts{};
        const bool read = readn(counter.get(), &counts, sizeof counts) == sizeof counts;
        if (read && counts.time_enabled > 0)
            share = std::min(share, static_cast<double>(counts.time_running) /
                                        static_cast<double>(counts.time_enabled));
    }
    return share;
}

std::string refused(std::size_t counter, int error) {
    const perf_event_attr event = eas::core_event(counter);
    std::array<char, 96> text{};
    std::snprintf(text.data(), text.size(), "event %zu of %d (type %u, config 0x%llx): %s",
                  counter + 1, num_core_counters, event.type,
                  static_cast<unsigned long long>(event.config), std::strerror(error));
    return text.data();
}

}  // namespace

Link examine_registers(const CoEfficients& /*model*/) {
    const std::string name = std::string("register device ") + msr_device;
    const eas::UniqueFd device(::open(msr_device, O_RDWR | O_CLOEXEC));
    if (device.is_open())
        return {name, LinkStatus::ok, "opens for reading and writing", "", ""};
    const LinkStatus status = status_of(errno);
    return {name, status, std::strerror(errno), "gethwrusage refuses the node",
            status == LinkStatus::denied ? "run as root (secure boot may lock registers)"
                                         : "modprobe msr"};
}

Link examine_core_counters(const CoEfficients& /*model*/) {
    const std::string limit =
        "perf_event_paranoid is " +
        first_line("/proc/sys/kernel/perf_event_paranoid").value_or("unknown");
    std::vector<eas::UniqueFd> counters;
    for (std::size_t counter = 0; counter < num_core_counters; ++counter) {
        perf_event_attr event = eas::core_event(counter);
        eas::UniqueFd fd(perf_event_open(&event, ::getpid(), -1, -1));
        if (!fd.is_open()) {
            const int error = errno;
            const LinkStatus status = status_of(error);
            return {core_link, status, refused(counter, error) + "; " + limit,
                    "gethwrusage gives no cycles and no instructions",
                    status == LinkStatus::denied
                        ? "run as root, or sysctl kernel.perf_event_paranoid=-1"
                        : "this (virtual) machine does not have all the counters"};
        }
        counters.push_back(std::move(fd));
    }
    std::string found = "15 events";
    if (const double share = share_on_hardware(counters); share < 0.999)
        found += ", each counted " + std::to_string(std::lround(100 * share)) +
                 " % of the time and scaled up: they share four to eight hardware counters, one of "
                 "which the NMI watchdog may take";
    return {core_link, LinkStatus::ok, found, "", ""};
}

}  // namespace easctl
