// Whether CPUs ran at a frequency, judged by what was counted while they were busy. Pure numbers.
#pragma once

#include <vector>

namespace eas::node {

/// One CPU over a period.
struct CpuClock {
    int cpu;
    int nominal_khz;  // 0: unknown
    double cycles;
    double busy_seconds;
};

struct ClockVerdict {
    int verdict;  // enum easnode_verdict
    double mean_khz = 0;
    double slowest_khz = 0, fastest_khz = 0;  // 0: no CPU was busy enough
    int slowest_cpu = -1, fastest_cpu = -1;
    double busy_seconds = 0;
};

/// Judges those CPUs that were busy for a tenth of `seconds`, at least. `turbo`: the frequency
/// means "as fast as turbo allows", so that any from the nominal one up is right.
[[nodiscard]] ClockVerdict judge(const std::vector<CpuClock>& clocks, int asked_khz, bool turbo,
                                 double seconds);

}  // namespace eas::node
