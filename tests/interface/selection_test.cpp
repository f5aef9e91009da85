// The selection rule and the record that a scheduler is handed.
#include <vector>

#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "interface/FrequencyPolicy.h"
#include "interface/TagRecord.h"
#include "tests/model/ModelFixtures.h"

namespace {

struct Row {
    double ghz;
    double saving;
    double degrade;
};

int khz(double ghz) {
    return static_cast<int>(ghz * 1e6);
}

/// A tag of a cluster with the default frequency 3 GHz.
EnergyTag tag_of(const std::vector<Row>& rows) {
    EnergyTag tag;
    tag.default_frequency(khz(3));
    for (const Row& row : rows)
        tag.set_array_data(khz(row.ghz), 100.0, row.saving, 60, row.degrade);
    return tag;
}

constexpr const char* site =
    "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
    "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n4GHz -10\n5GHz -20\nEnd Min_Time\n";

TEST(Selection, FollowsThePolicyAndItsLimits) {
    CoEfficients set = eas_test::make_set({khz(1), khz(2), khz(3), khz(4), khz(5)}, khz(3));
    EnergyPerfThreshold limits(&set, nullptr);
    limits.parseThresholds(eas_test::file_of(site).get());
    ASSERT_TRUE(limits.isValid());
    constexpr const char *energy = "minimize_energy", *quick = "minimize_time";
    const struct {
        const char* what;
        const char* policy;
        std::vector<Row> rows;
        double ghz;
        double time_var;
    } cases[] = {
        {"best saving within the limit",
         energy,
         {{1, -0.3, 0.06}, {2, -0.2, 0.05}, {3, 0, 0}, {4, -0.9, -0.1}},
         2,
         0.05},
        {"the limit's tolerance", energy, {{1, -0.3, 0.05 + 0.9e-7}, {3, 0, 0}}, 1, 0.05 + 0.9e-7},
        {"beyond the tolerance", energy, {{1, -0.3, 0.05 + 1.1e-7}, {3, 0, 0}}, 3, 0},
        {"equal savings: lower", energy, {{1, -0.2, 0.04}, {2, -0.2, 0.01}, {3, 0, 0}}, 1, 0.04},
        {"nothing saves: no change", energy, {{1, 0, 0.04}, {2, 0.1, 0.01}, {3, 0, 0.02}}, 3, 0},
        {"the default itself saves", energy, {{3, -0.1, 0.02}}, 3, 0.02},
        {"the highest that qualifies", quick, {{3, 0, 0}, {4, 0.2, -0.1}, {5, 0.3, -0.2}}, 5, -0.2},
        {"highest gains too little", quick, {{3, 0, 0}, {4, 0.2, -0.1}, {5, 0.3, -0.19}}, 4, -0.1},
        {"its tolerance", quick, {{3, 0, 0}, {4, 0.2, -0.1 + 0.9e-7}}, 4, -0.1 + 0.9e-7},
        {"no more than that", quick, {{3, 0, 0}, {4, 0.2, -0.1 + 1.1e-7}}, 3, 0},
        {"default meets its own 0", quick, {{2, 0, -0.5}, {3, 0, -0.01}, {4, 0.2, 0}}, 3, -0.01},
        {"never below the default, whatever is gained",
         quick,
         {{2, -0.5, -0.5}, {3, 0, 0.1}},
         3,
         0},
        {"a frequency without a limit", quick, {{6, 0, -0.9}}, 3, 0},
        {"another policy", "minimize_nothing", {{3, -0.1, 0}}, 0, 0},
    };
    for (const auto& c : cases) {
        const auto choice = eas::select_frequency(tag_of(c.rows), c.policy, limits);
        EXPECT_EQ(choice.frequency, khz(c.ghz)) << c.what;
        EXPECT_EQ(choice.time_var, c.time_var) << c.what;
    }
}

TEST(TagRecord, RefusesNoRecordAndATagWithoutRows) {
    energyPolicyTag_t record = {};
    record.num_freq = 7;
    EXPECT_EQ(fill_tag_struct(EnergyTag(), &record), -1);
    EXPECT_EQ(record.num_freq, 7);
    EXPECT_EQ(fill_tag_struct(tag_of({{1, 0, 0}}), nullptr), -1);
}

}  // namespace
