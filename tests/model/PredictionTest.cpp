// Coefficient sets, job metrics and the predictions of an energy tag.
#include <climits>
#include <limits>
#include <utility>

#include "base/Numbers.h"
#include "common/model/EnergyTag.h"
#include "common/model/JobMetrics.h"
#include "tests/model/ModelFixtures.h"

namespace {

constexpr double infinite = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// Four frequencies around a default of 2.4 GHz.
CoEfficients sample_set() {
    CoEfficients set;
    set.setArrayData(1200000, 0.6137, 31.2571, 11.3073, 0.9313, -1.9007, 0.0411);
    set.setArrayData(1800000, 0.8153, 12.1259, 5.7531, 0.9719, -0.8011, 0.0133);
    set.setArrayData(2400000, 0, 0, 0, 0, 0, 0);
    set.setArrayData(3000000, 1.2707, -9.5537, 2.1257, 1.0411, 1.1003, -0.0171);
    return set;
}

EnergyTag tag_of(const CoEfficients& set, double power, int seconds, double gbs = 1.0,
                 double gips = 1.0, double cpi = 1.0) {
    return EnergyTag(&set, "c1", "anna", "j.0", "t1", power, seconds, gbs, gips, cpi);
}

void expect_empty(const EnergyTag& tag) {
    EXPECT_EQ(tag.available(), 0);
    EXPECT_EQ(tag.cluster_name() + tag.energy_tag_name() + tag.job_step_id() + tag.user_name(), "");
    EXPECT_EQ(tag.default_frequency(), 0);
    EXPECT_EQ(tag.create_time(), 0);
    EXPECT_TRUE(tag.perf_degrad_pct_array().empty());
}

TEST(Coefficients, DeriveDefaultAndNominalFrequencyFromTheRows) {
    struct {
        const char* what;
        std::vector<std::pair<int, double>> rows;  // a frequency, and all its factors but the last
        double last_factor;
        int default_frequency, nominal;
    } const cases[] = {
        {"empty", {}, 0, 0, 0},
        {"no marker row", {{16, 1}, {24, 1}}, 0, 0, 24},
        {"the last marker counts", {{12, 0}, {16, 0}, {24, 1}}, 0, 16, 24},
        {"negative counts as zero", {{12, -5}, {24, 1}}, -6, 12, 24},
        {"1e-6 is not zero", {{12, 0}, {24, 1}}, 1e-6, 0, 24},
        {"below 1e-6 is", {{12, 9e-7}, {24, 1}}, 9e-7, 12, 24},
        {"nominal is the last, not the highest", {{24, 1}, {16, 0}}, 0, 16, 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CoEfficients set;
        for (const auto& [f, v] : c.rows)
            set.setArrayData(f, v, v, v, v, v, c.last_factor);
        EXPECT_EQ(set.getDefaultFrequency(), c.default_frequency);
        EXPECT_EQ(set.getNominalFrequency(), c.nominal);
        EXPECT_EQ(set.total_frequencies(), static_cast<int>(c.rows.size()));
    }
}

TEST(Coefficients, FindTheFirstRowOfAFrequencyAndCopyDeeply) {
    CoEfficients set = eas_test::make_set({16, 20, 16}, 20);
    CoEfficients copy;
    copy = set;
    set.setArrayData(28, 1, 2, 3, 4, 5, 6);
    EXPECT_EQ(set.getCoeffFreqIndex(16), 0);
    EXPECT_EQ(set.getCoeffFreqIndex(28), 3);
    EXPECT_EQ(set.CoEfficientB_Array()[3], 2.0);
    EXPECT_EQ(copy.getCoeffFreqIndex(28), -1);
    EXPECT_EQ(copy.frequencyArray(), (std::vector<int>{16, 20, 16}));
}

TEST(Coefficients, ListRowsExceptThoseOfFrequencyMinusOne) {
    CoEfficients set;
    set.setArrayData(-1, 1, 1, 1, 1, 1, 1);
    set.setArrayData(1600000, 0.5, -1, 2, 3, 4, 5.25);
    testing::internal::CaptureStdout();
    set.displayCoEfficients();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "frequency = 1600000, A = 0.500000, B = -1.000000, C = 2.000000, D = 3.000000, "
              "E = 4.000000, F = 5.250000\n");
}

TEST(Numbers, ConvertWhatNoIntHoldsToTheLowestInt) {
    const std::pair<double, int> cases[] = {{0.9, 0},
                                            {-0.9, 0},
                                            {-2147483648.9, INT_MIN},
                                            {2147483647.9, INT_MAX},
                                            {2147483648., INT_MIN},
                                            {-2147483649., INT_MIN},
                                            {infinite, INT_MIN},
                                            {nan, INT_MIN}};
    for (const auto& [value, expected] : cases) {
        EXPECT_EQ(eas::truncate_to_int(value), expected) << value;
    }
    EXPECT_EQ(eas::to_int(" -12x"), -12);
    EXPECT_EQ(eas::to_int("4297567296"), INT_MIN);  // 2600000 in the low 32 bits
    EXPECT_EQ(eas::to_int("99999999999999999999"), INT_MIN);
}

// The expected values were calculated apart from the library, with Python's doubles and each
// formula in its order, and printed with float.hex(). Among them are values that come out
// differently when A x power + (B x + C) is grouped from the left, and when a product is fused into
// a sum.
TEST(Prediction, IsRightToTheBit) {
    struct Row {
        int frequency;
        double power, saving;
        int seconds;
        double slowdown;
    };
    const std::vector<Row> compute_bound = {
        {1200000, 0x1.7789db0a48b0ep+7, 0x1.1f8f933be5c4cp-2, 7072, 0x1.ebd7f89e69774p-1},
        {1800000, 0x1.e03daae6328c5p+7, 0x1.974aae1c02a10p-4, 4747, 0x1.43a32acbfa09cp-2},
        {2400000, 0x1.1f6e147ae147bp+8, 0.0, 3607, 0.0},
        {3000000, 0x1.6f57c06aa5971p+8, 0x1.69e245fda9a00p-5, 2947, -0x1.76bcee2f8d4ecp-3}};
    const std::vector<Row> memory_bound = {
        {1200000, 0x1.cd5efff7a32b9p+7, -0x1.cbfb09fed67e4p-3, 4129, 0x1.d9adf6bb2ce40p-4},
        {1800000, 0x1.1a71b74c087b0p+8, -0x1.3e7ced3267fb0p-4, 4011, 0x1.5715ed52ef780p-4},
        {2400000, 0x1.4be8f5c28f5c3p+8, 0.0, 3701, 0.0},
        {3000000, 0x1.a316f099d6ab9p+8, 0x1.171875648a068p-2, 3730, 0x1.00c2c8bb97200p-7}};
    struct {
        double cycles, instructions, bytes, power;
        int seconds;
        double gbs, gips, cpi;
        const std::vector<Row>& rows;
    } const jobs[] = {
        {2.3517e13, 3.1093e13, 4.2119e12, 287.43, 3607, 0x1.2aee7f7effd0dp+0, 0x1.13d889f8c2c01p+3,
         0x1.833f810232c45p-1, compute_bound},
        {2.2091e13, 0.9037e13, 2.9023e14, 331.91, 3701, 0x1.39ad6911ea47dp+6, 0x1.388c0046d4a14p+1,
         0x1.38e591eade08ep+1, memory_bound},
    };
    const CoEfficients set = sample_set();
    for (const auto& job : jobs) {
        SCOPED_TRACE(job.cycles);
        const double gbs = GBS(job.bytes, job.seconds);
        const double gips = GIPS(job.instructions, job.seconds);
        const double cpi = CPI(job.cycles, job.instructions);
        EXPECT_EQ(gbs, job.gbs);
        EXPECT_EQ(gips, job.gips);
        EXPECT_EQ(cpi, job.cpi);
        const EnergyTag tag = tag_of(set, job.power, job.seconds, gbs, gips, cpi);
        ASSERT_EQ(tag.frequency_array().size(), job.rows.size());
        for (std::size_t i = 0; i < job.rows.size(); ++i) {
            const Row& row = job.rows[i];
            EXPECT_EQ(tag.frequency_array()[i], row.frequency);
            EXPECT_EQ(tag.predict_power_array()[i], row.power);
            EXPECT_EQ(tag.energy_saving_pct_array()[i], row.saving);
            EXPECT_EQ(tag.predict_elapse_time_array()[i], row.seconds);
            EXPECT_EQ(tag.perf_degrad_pct_array()[i], row.slowdown);
            if (row.frequency != 2400000) {
                EXPECT_EQ(tag.predictTime(&set, static_cast<int>(i), job.seconds, gbs, gips, cpi),
                          row.seconds);
            }
        }
        EXPECT_EQ(tag.default_frequency(), 2400000);
        EXPECT_EQ(tag.get_nominal_freq(), 3000000);
        EXPECT_EQ(tag.get_default_energy_index(), 2);
    }
}

TEST(Prediction, TurnedRoundGivesWhatWasMeasured) {
    const CoEfficients set = sample_set();
    constexpr double watts = 287.43, cycles = 0.75, lines = 0.0417;
    for (const eas::ModelRow& row : set.rows()) {
        EXPECT_EQ(row.is_invertible(), !row.marks_default());
        if (row.marks_default())
            continue;
        const double pace = row.pace(cycles, lines);
        EXPECT_NEAR(row.power_at_default(row.power(watts, lines), lines), watts, 1e-10);
        EXPECT_NEAR(row.pace_at_default(pace, lines), cycles, 1e-12);
        const double seconds = row.seconds(3607, cycles, lines, 2400000);
        EXPECT_NEAR(row.seconds_at_default(seconds, pace, lines, 2400000), 3607, 1e-9);
    }
}

TEST(Prediction, LeavesAnEmptyTagWhenItCannotBeMade) {
    const CoEfficients set = sample_set();
    const CoEfficients no_default = eas_test::make_set({1200000, 2400000}, 0);
    const CoEfficients zero_frequency = eas_test::make_set({0, 2400000}, 2400000);
    const CoEfficients half = eas_test::make_set({1800000, 3600000}, 1800000);
    const CoEfficients single = eas_test::make_set({1800000}, 1800000);
    const CoEfficients empty;
    struct {
        const char* what;
        const CoEfficients* set;
        double power;
        int seconds;
        double gbs, gips, cpi;
    } const cases[] = {
        {"no set", nullptr, 100, 100, 1, 1, 1},
        {"empty set", &empty, 100, 100, 1, 1, 1},
        {"no default frequency: all times 0", &no_default, 100, 100, 1, 1, 1},
        {"division by frequency 0", &zero_frequency, 100, 100, 1, 1, 1},
        {"half a second is cut to 0", &half, 100, 1, 1, 1, 1},
        {"no time", &set, 100, 0, 1, 1, 1},
        {"negative time", &set, 100, -5, 1, 1, 1},
        {"no time at the only frequency", &single, 100, 0, 1, 1, 1},
        {"no power at the default", &half, 9e-7, 100, 1, 1, 1},
        {"gips at the limit", &set, 100, 100, 1, 1e-7, 1},
        {"gips is no number", &set, 100, 100, 1, nan, 1},
        {"cpi at the limit", &set, 100, 100, 1, 1, 1e-7},
        {"cpi is no number", &set, 100, 100, 1, 1, nan},
        {"traffic is no number", &set, 100, 100, nan, 1, 1},
        {"time beyond int", &set, 100, INT_MAX, -1e9, 1, 1},
        {"infinite time", &set, 100, 100, infinite, 1, 1},
        {"power is no number", &set, nan, 100, 1, 1, 1},
        {"negative predicted power", &set, 100, 100, -1e4, 1, 1e4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        expect_empty(
            EnergyTag(c.set, "c1", "anna", "j.0", "t1", c.power, c.seconds, c.gbs, c.gips, c.cpi));
    }
}

TEST(Prediction, RefusesSingleRowsThatDoNotExist) {
    const CoEfficients set = sample_set();
    const EnergyTag tag;
    for (const auto& [any_set, row] : {std::pair(&set, -1), {&set, 4}, {nullptr, 0}}) {
        EXPECT_EQ(tag.predictPower(any_set, row, 100, 1, 1), -1.0);
        EXPECT_EQ(tag.predictTime(any_set, row, 100, 1, 1, 1), -1);
    }
    double change = 7.0;
    EXPECT_EQ(tag.perfDegrade(0, 100, change), -1);
    EXPECT_EQ(tag.perfDegrade(100, 0, change), -1);
    EXPECT_EQ(tag.energySaving(1e-7, 1.0, change), -1);
    EXPECT_EQ(tag.energySaving(1.0, nan, change), -1);
    EXPECT_EQ(change, 7.0);
}

TEST(Prediction, UsesTheFirstRowOfAFrequencyThatOccursTwice) {
    CoEfficients set = eas_test::make_set({1200000}, 2400000);
    for (const auto& [khz, factor] : {std::pair(1200000, 5), {2400000, 0}, {1200000, 6}})
        set.setArrayData(khz, factor, 0, 0, factor, 0, 0);
    const EnergyTag tag = tag_of(set, 100, 100);
    EXPECT_EQ(tag.frequency_array(), (std::vector<int>{1200000, 1200000, 2400000, 1200000}));
    EXPECT_EQ(tag.predict_power_array(), (std::vector<double>{100, 100, 100, 100}));
    EXPECT_EQ(tag.predict_elapse_time_array(), (std::vector<int>{200, 200, 100, 200}));
}

TEST(Tag, IsTheSameForClusterNameUserAndDefaultFrequency) {
    const CoEfficients set = sample_set();
    const EnergyTag tag = tag_of(set, 100, 100);
    const auto same_as = [&](const char* cluster, const char* user, const char* name, int khz) {
        EnergyTag other;
        other.cluster_name(cluster);
        other.user_name(user);
        other.energy_tag_name(name);
        other.default_frequency(khz);
        return tag == other;
    };
    EXPECT_TRUE(same_as("c1", "anna", "t1", 2400000));
    EXPECT_FALSE(same_as("x", "anna", "t1", 2400000));
    EXPECT_FALSE(same_as("c1", "x", "t1", 2400000));
    EXPECT_FALSE(same_as("c1", "anna", "x", 2400000));
    EXPECT_FALSE(same_as("c1", "anna", "t1", 2400001));
    const EnergyTag nameless(&set, nullptr, nullptr, "j.0", nullptr, 100, 100, 1, 1, 1);
    EXPECT_EQ(nameless.available(), 1);
    EXPECT_EQ(nameless.user_name(), "") << "a null name is an empty one";
    EnergyTag copy;
    copy = nameless;
    EXPECT_EQ(copy.job_step_id(), "j.0");
    EXPECT_EQ(copy.perf_degrad_pct_array(), nameless.perf_degrad_pct_array());
}

}  // namespace
