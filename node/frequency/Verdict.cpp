#include "node/frequency/Verdict.h"

#include <cmath>

#include "node/node.h"

namespace eas::node {
namespace {

// The clock of the reference differs by some 0.3 % from the nominal frequency.
constexpr double mean_tolerance = 0.02;
constexpr double cpu_tolerance = 0.05;
constexpr double least_share = 0.1;
constexpr double least_seconds = 0.02;

}  // namespace

ClockVerdict judge(const std::vector<CpuClock>& clocks, int asked_khz, bool turbo, double seconds) {
    ClockVerdict found{EASNODE_RUNS_AT};
    double cycles = 0, judged_seconds = 0;
    const auto is_off = [&](double khz, int nominal_khz, double tolerance) {
        const double difference =
            turbo && nominal_khz > 0 ? std::fmin(khz / nominal_khz - 1, 0) : khz / asked_khz - 1;
        return std::fabs(difference) > tolerance;
    };
    for (const CpuClock& clock : clocks) {
        found.busy_seconds += clock.busy_seconds;
        if (clock.busy_seconds < std::fmax(least_share * seconds, least_seconds))
            continue;
        const double khz = clock.cycles / clock.busy_seconds / 1000;
        cycles += clock.cycles;
        judged_seconds += clock.busy_seconds;
        if (found.slowest_cpu < 0 || khz < found.slowest_khz) {
            found.slowest_khz = khz;
            found.slowest_cpu = clock.cpu;
        }
        if (khz > found.fastest_khz) {
            found.fastest_khz = khz;
            found.fastest_cpu = clock.cpu;
        }
        if (is_off(khz, clock.nominal_khz, cpu_tolerance))
            found.verdict = EASNODE_RUNS_OTHERWISE;
    }
    if (judged_seconds == 0) {
        found.verdict = EASNODE_CANNOT_TELL;
        return found;
    }
    found.mean_khz = cycles / judged_seconds / 1000;
    if (is_off(found.mean_khz, clocks.front().nominal_khz, mean_tolerance))
        found.verdict = EASNODE_RUNS_OTHERWISE;
    return found;
}

}  // namespace eas::node
