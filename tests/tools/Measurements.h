// A node of known coefficients, and what a calibration of it measures.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "common/model/CoEffsFromFile.h"

namespace eas::test {

/// At the default frequency.
struct KnownKernel {
    const char* name;
    double watts, cycles_per_instruction, lines;
};
inline constexpr KnownKernel kernels[] = {
    {"registers", 320, 0.40, 0.0005}, {"matrix", 250, 0.70, 0.0200},
    {"branches", 280, 1.30, 0.0500},  {"fourier", 340, 0.90, 0.0900},
    {"stencil", 260, 2.20, 0.1200},   {"sparse", 300, 1.70, 0.1700},
    {"stream", 330, 2.90, 0.2000},
};

struct KnownRow {
    int khz;
    std::array<double, 6> factors;  // A to F
    [[nodiscard]] double watts(const KnownKernel& kernel) const {
        return factors[0] * kernel.watts + factors[1] * kernel.lines + factors[2];
    }
    [[nodiscard]] double pace(const KnownKernel& kernel) const {
        return factors[3] * kernel.cycles_per_instruction + factors[4] * kernel.lines + factors[5];
    }
};
/// The row of the default frequency predicts what was measured there.
inline constexpr KnownRow coefficients[] = {
    {1600000, {0.45, 80, 60, 0.92, -2.0, 0.05}},
    {2400000, {1, 0, 0, 1, 0, 0}},
    {2667000, {1.15, -30, -12, 1.04, 0.9, -0.02}},
};

/// The rows of a coefficient file as the library reads them.
inline std::vector<KnownRow> rows_of(const std::string& path) {
    CoEffsFromFile file;
    EXPECT_EQ(file.ReadCoefficientsFromFile(path.c_str()), 0);
    std::vector<KnownRow> rows;
    for (std::size_t i = 0; i < file.getFrequencies().size(); ++i)
        rows.push_back({file.getFrequencies()[i],
                        {file.getFactorA()[i], file.getFactorB()[i], file.getFactorC()[i],
                         file.getFactorD()[i], file.getFactorE()[i], file.getFactorF()[i]}});
    return rows;
}

/// The columns frequency_khz,kernel,remark,elapsed_s,power_w,cycles,instructions,memory_bytes.
inline std::string measurement_line(const KnownKernel& kernel, const KnownRow& row,
                                    double seconds = 10, double more_watts = 0) {
    const double instructions = 1e10 * seconds;
    std::array<char, 400> text{};
    std::snprintf(text.data(), text.size(), "%d,%s,\"a, b\",%.17g,%.17g,%.17g,%.17g,%.17g", row.khz,
                  kernel.name, seconds, row.watts(kernel) + more_watts,
                  row.pace(kernel) * instructions, instructions, instructions * kernel.lines * 64);
    return text.data();
}

}  // namespace eas::test
