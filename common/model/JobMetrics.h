// The workload figures of a job, from its hardware counters and its run time in seconds. No divisor
// is checked: callers make sure of the time first, the predictions refuse what comes of the rest.
#pragma once

/// Memory traffic in GB/s, from bytes.
inline double GBS(double mem, int time_elapsed) {
    return mem / static_cast<double>(time_elapsed) / 1e9;
}

/// Giga-instructions per second.
inline double GIPS(double instructions, int time_elapsed) {
    return instructions / static_cast<double>(time_elapsed) / 1e9;
}

/// Cycles per instruction.
inline double CPI(double cycles, double instructions) {
    return cycles / instructions;
}

namespace eas {

/// Memory traffic in cache lines of 64 bytes per instruction: from GB/s and GIPS, or from bytes and
/// instructions.
inline double lines_per_instruction(double traffic, double instructions) {
    return traffic / instructions / 64.0;
}

}  // namespace eas
