// The fit of calibration runs. Expected values come from the same formulas, evaluated in the same
// order outside of the library, and are compared to the bit.
#include <gtest/gtest.h>

#include "common/node/EnergyUtil.h"

namespace {

using Vector = std::vector<double>;

TEST(FitTest, IsExactToTheBit) {
    const struct {
        const char* name;
        Vector y, x1, x2, result;
    } rows[] = {
        {"powers of a node",
         {201.37, 188.4, 243.91, 260.02, 175.55, 221.7, 230.1},
         {0.83, 0.71, 1.42, 1.61, 0.44, 1.13, 1.27},
         {12.7, 9.1, 31.3, 28.9, 3.3, 22.2, 17.9},
         {42, 0x1.147b0324345a3p+6, 0x1.3cb6327ed2e57p-3, 0x1.1ab534efcf68ep+7}},
        {"magnitudes far apart",
         {1e-3, 3.3e5, 7.1, 9.99e4, 0.1, 0.2, 0.3},
         {3.1, 1e5, 2.7e3, 4e-4, 1.7, 5.5, 9.1},
         {0.1, 0.7, 1.3e3, 8.8, 1e-2, 77.7, 6.6e4},
         {42, 0x1.8da1b41921843p+1, -0x1.29c907a29a125p-2, 0x1.23162a7cb38d8p+14}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Vector res{42};
        EXPECT_EQ(1, EnergyUtil::cal_coefficients(row.y, row.x1, row.x2, res));
        EXPECT_EQ(row.result, res);
    }
}

TEST(FitTest, UsesTheFirstSevenSamplesAndAppends) {
    const Vector x1{0, 1, 0, 1, 2, 0, 2, 1e9};
    const Vector x2{0, 0, 1, 1, 0, 2, 2, -1e9, 5};
    Vector y;
    for (std::size_t i = 0; i < 7; ++i)
        y.push_back(1 + 2 * x1[i] + 3 * x2[i]);
    Vector res;
    EXPECT_EQ(1, EnergyUtil::cal_coefficients(y, x1, x2, res));
    EXPECT_EQ(1, EnergyUtil::cal_coefficients(y, x1, x2, res));
    ASSERT_EQ(6U, res.size());
    for (const std::size_t i : {0U, 3U}) {
        EXPECT_DOUBLE_EQ(2, res[i]);
        EXPECT_DOUBLE_EQ(3, res[i + 1]);
        EXPECT_DOUBLE_EQ(1, res[i + 2]);
    }
}

TEST(FitTest, FewerSamplesAreRefused) {
    const Vector seven(7, 1.0);
    const Vector six(6, 1.0);
    Vector res{42};
    EXPECT_EQ(-1, EnergyUtil::cal_coefficients(six, seven, seven, res));
    EXPECT_EQ(-1, EnergyUtil::cal_coefficients(seven, six, seven, res));
    EXPECT_EQ(-1, EnergyUtil::cal_coefficients(seven, seven, {}, res));
    EXPECT_EQ(Vector{42}, res);
}

}  // namespace
