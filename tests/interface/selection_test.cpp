// The selection rule and the record that a scheduler is handed.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/UniqueFile.h"
#include "common/CoEfficients.h"
#include "common/EnergyPerfThreshold.h"
#include "common/EnergyTag.h"
#include "gtest/gtest.h"
#include "interface/FrequencyPolicy.h"
#include "interface/TagRecord.h"

namespace {

struct Row {
    int frequency;
    double saving;
    double degrade;
};

EnergyTag tag_of(int default_frequency, const std::vector<Row>& rows) {
    EnergyTag tag;
    tag.default_frequency(default_frequency);
    for (const Row& row : rows)
        tag.set_array_data(row.frequency, 100.0, row.saving, 60, row.degrade);
    return tag;
}

/// Thresholds of a cluster with frequencies 1 to 5 and default frequency 3.
EnergyPerfThreshold thresholds(CoEfficients& coeffs, const std::string& text) {
    for (int f = 1; f <= 5; ++f) {
        const double factor = f == 3 ? 0.0 : 1.0;
        coeffs.setArrayData(f * 1000000, factor, factor, factor, factor, factor, factor);
    }
    const eas::UniqueFile file(std::tmpfile());
    std::fputs(text.c_str(), file.get());
    std::rewind(file.get());
    EnergyPerfThreshold result(&coeffs, nullptr);
    result.parseThresholds(file.get());
    return result;
}

constexpr const char* site =
    "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
    "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n4GHz -10\n5GHz -20\nEnd Min_Time\n";

constexpr int M = 1000000;

TEST(Selection, FollowsThePolicyAndItsLimits) {
    CoEfficients coeffs;
    const EnergyPerfThreshold limits = thresholds(coeffs, site);
    ASSERT_TRUE(limits.isValid());
    const struct {
        const char* what;
        const char* policy;
        std::vector<Row> rows;
        int frequency;
        double time_var;
    } cases[] = {
        {"best saving within the limit",
         "minimize_energy",
         {{1 * M, -0.3, 0.06}, {2 * M, -0.2, 0.05}, {3 * M, 0.0, 0.0}, {4 * M, -0.9, -0.1}},
         2 * M,
         0.05},
        {"the limit has a tolerance",
         "minimize_energy",
         {{1 * M, -0.3, 0.05 + 0.9e-7}, {3 * M, 0.0, 0.0}},
         1 * M,
         0.05 + 0.9e-7},
        {"beyond the tolerance",
         "minimize_energy",
         {{1 * M, -0.3, 0.05 + 1.1e-7}, {3 * M, 0.0, 0.0}},
         3 * M,
         0.0},
        {"equal savings: the lower one",
         "minimize_energy",
         {{1 * M, -0.2, 0.04}, {2 * M, -0.2, 0.01}, {3 * M, 0.0, 0.0}},
         1 * M,
         0.04},
        {"nothing saves: the default, time unchanged",
         "minimize_energy",
         {{1 * M, 0.0, 0.04}, {2 * M, 0.1, 0.01}, {3 * M, 0.0, 0.02}},
         3 * M,
         0.0},
        {"the default itself saves", "minimize_energy", {{3 * M, -0.1, 0.02}}, 3 * M, 0.02},
        {"the highest that qualifies",
         "minimize_time",
         {{3 * M, 0.0, 0.0}, {4 * M, 0.2, -0.1}, {5 * M, 0.3, -0.2}},
         5 * M,
         -0.2},
        {"the highest gains too little",
         "minimize_time",
         {{3 * M, 0.0, 0.0}, {4 * M, 0.2, -0.1}, {5 * M, 0.3, -0.19}},
         4 * M,
         -0.1},
        {"the default meets its own limit of 0",
         "minimize_time",
         {{2 * M, 0.0, -0.5}, {3 * M, 0.0, -0.01}, {4 * M, 0.2, 0.0}},
         3 * M,
         -0.01},
        {"never below the default, whatever is gained",
         "minimize_time",
         {{2 * M, -0.5, -0.5}, {3 * M, 0.0, 0.1}},
         3 * M,
         0.0},
        {"a frequency without a limit", "minimize_time", {{6 * M, 0.0, -0.9}}, 3 * M, 0.0},
        {"another policy", "minimize_nothing", {{3 * M, -0.1, 0.0}}, 0, 0.0},
    };
    for (const auto& c : cases) {
        const auto choice = eas::select_frequency(tag_of(3 * M, c.rows), c.policy, limits);
        EXPECT_EQ(choice.frequency, c.frequency) << c.what;
        EXPECT_EQ(choice.time_var, c.time_var) << c.what;
    }
}

TEST(TagRecord, RefusesNoRecordAndATagWithoutRows) {
    energyPolicyTag_t record = {};
    record.num_freq = 7;
    EXPECT_EQ(fill_tag_struct(EnergyTag(), &record), -1);
    EXPECT_EQ(record.num_freq, 7);
    EXPECT_EQ(fill_tag_struct(tag_of(1, {{1, 0.0, 0.0}}), nullptr), -1);
}

}  // namespace
