// What the frequencies of a node are read from and judged by, without a node: the text of saved
// settings, which root reads back, the processor's name, busy times, counted clocks.
#include <gtest/gtest.h>

#include "node/frequency/BusyTime.h"
#include "node/frequency/Nominal.h"
#include "node/frequency/SavedSettings.h"
#include "node/frequency/Verdict.h"
#include "node/node.h"

namespace eas::node {
namespace {

SavedSettings two_kinds() {
    SavedSettings saved;
    saved.boot = "0d6d6f0e-6c1f-4d5e-9f86-1a2b3c4d5e6f";
    saved.asked = 2000000;
    saved.turbo = {TurboSwitch::Kind::no_turbo, true};
    for (const int number : {0, 1, 2, 5, 1500})
        saved.policies[number] = {"intel_pstate",
                                  {"powersave", 800000, 3800000, -1, -1, "balance_performance"}};
    saved.policies[3] = {"amd-pstate", {"userspace", 1210811, 4410811, 2000000, 1, ""}};
    return saved;
}

TEST(SavedSettings, AreShortAndComeBackAsTheyWere) {
    const std::string text = text_of(two_kinds());
    EXPECT_EQ(0U,
              text.find("easnode-frequency 1\nboot 0d6d6f0e-6c1f-4d5e-9f86-1a2b3c4d5e6f\n"
                        "asked 2000000\nno_turbo 0\n"
                        "policies 0-2,5,1500 driver=intel_pstate governor=powersave min=800000 "
                        "max=3800000 preference=balance_performance\n"
                        "policies 3 driver=amd-pstate governor=userspace min=1210811 max=4410811 "
                        "speed=2000000 boost=1\nend "))
        << text;
    const auto back = parse_settings(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(text, text_of(*back));
    EXPECT_TRUE(back->turbo == two_kinds().turbo);
    EXPECT_EQ(6U, back->policies.size());
    EXPECT_TRUE(back->policies.at(3).settings == two_kinds().policies.at(3).settings);
}

TEST(SavedSettings, AreRefusedWhereverTheyAreDamaged) {
    const std::string text = text_of(two_kinds());
    for (size_t i = 0; i < text.size(); ++i) {
        EXPECT_FALSE(parse_settings(text.substr(0, i))) << "cut after " << i;
        for (const char other : {'0', ' ', '\n', '/', '\0'}) {
            std::string damaged = text;
            damaged[i] = other;
            EXPECT_EQ(damaged == text, parse_settings(damaged).has_value()) << "changed at " << i;
        }
    }
    EXPECT_FALSE(parse_settings(text + "\n"));
    EXPECT_FALSE(parse_settings(text + text));
}

// With the checksum that belongs to it: whoever forges a text knows how to count.
TEST(SavedSettings, ForgedOnesReachNothingButSettings) {
    const std::string begin = "easnode-frequency 1\nboot -\n";
    const std::string good =
        "policies 0 driver=x governor=" + std::string(36, 'p') + " min=1 max=2\n";
    const auto is_taken = [](const std::string& lines) {
        return parse_settings(lines + end_line(lines)).has_value();
    };
    ASSERT_TRUE(is_taken(begin + good));
    const char* const rows[] = {
        "",
        "policies 0 driver=x governor=../../x min=1 max=2\n",
        "policies 0 driver=x governor=a.b min=1 max=2\n",
        "policies 0 driver=x governor= min=1 max=2\n",
        "policies 0 driver=x governor=a234567890123456789012345678901234567 min=1 max=2\n",
        "policies 0 driver=x governor=p min=1 max=2 preference=a/b\n",
        "policies 0 driver=x governor=p min=3 max=2\n",
        "policies 0 driver=x governor=p min=-1 max=2\n",
        "policies 0 driver=x governor=p min=1 max=99999999999\n",
        "policies 0 driver=x governor=p min=1 max=2 boost=2\n",
        "policies 0 driver=x governor=p min=1 max=2 path=3\n",
        "policies 0-1,1 driver=x governor=p min=1 max=2\n",
        "policies 0-99999 driver=x governor=p min=1 max=2\n",
        "policies 0 driver=x governor=p min=1 max=2\npolicies 0 driver=x governor=q min=1 max=2\n",
        "policies ../x driver=x governor=p min=1 max=2\n",
        "no_turbo 2\npolicies 0 driver=x governor=p min=1 max=2\n",
        "boost 1\nno_turbo 1\npolicies 0 driver=x governor=p min=1 max=2\n",
    };
    for (const char* row : rows)
        EXPECT_FALSE(is_taken(begin + row)) << row;
    EXPECT_FALSE(is_taken("easnode-frequency 2\nboot -\n" + good)) << "of a later version";
    EXPECT_FALSE(is_taken(begin + good + std::string(2 << 20, '\n'))) << "far too long";
}

TEST(NominalFrequency, IsTheNumberAtTheEndOfAName) {
    const struct {
        const char* name;
        int khz;
    } rows[] = {
        {"Intel(R) Xeon(R) CPU E5-2680 0 @ 2.70GHz", 2700000},
        {"Intel(R) Xeon(R) CPU @ 2.133 GHz", 2133000},
        {"Intel(R) Xeon(R) Platinum 8480+", 0},
        {"AMD EPYC 7763 64-Core Processor", 0},
        {"x @ GHz", 0},
        {"x @ -2GHz", 0},
        {"x @ 1e9GHz", 0},
        {"", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.khz, nominal_in_name(row.name)) << row.name;
}

TEST(BusyTicks, LeaveOutIdleAndStolenTime) {
    const auto ticks = parse_busy_ticks(
        "cpu  9 9 9 9 9 9 9 9 9 9\ncpu0 1 20 300 4000 50000 600000 7000000 80000000 1 1\n"
        "cpu7 1 1 1 1\ncpu8 1 x 1 1 1 1 1 1\ncpu70000 1 1 1 1 1 1 1 1\nintr 1 2\ncpu9 1 1 1 1 1 1 "
        "1");
    EXPECT_EQ((BusyTicks{{0, 7600321}, {9, 5}}), ticks);
}

TEST(ClockVerdict, JudgesBusyCpusByTheFrequencyAskedFor) {
    // Two CPUs at a nominal 2.5 GHz over 10 s: their clocks (kHz) and busy seconds.
    const struct {
        double khz[2];
        double busy[2];
        int asked;
        bool turbo;
        int verdict;
    } rows[] = {
        {{2000000, 2000000}, {10, 10}, 2000000, false, EASNODE_RUNS_AT},
        {{1961000, 1961000}, {10, 10}, 2000000, false, EASNODE_RUNS_AT},
        {{2041000, 2041000}, {10, 10}, 2000000, false, EASNODE_RUNS_OTHERWISE},
        {{2000000, 1901000}, {10, 1}, 2000000, false, EASNODE_RUNS_AT},
        {{2000000, 1899000}, {10, 1}, 2000000, false, EASNODE_RUNS_OTHERWISE},  // one CPU
        {{2000000, 800000}, {10, 0.99}, 2000000, false, EASNODE_RUNS_AT},       // it was idle
        {{3100000, 3100000}, {10, 10}, 2500000, false, EASNODE_RUNS_OTHERWISE},
        {{3100000, 2600000}, {10, 10}, 2501000, true, EASNODE_RUNS_AT},  // any turbo will do
        {{2449000, 2449000}, {10, 10}, 2501000, true, EASNODE_RUNS_OTHERWISE},
        {{2000000, 2000000}, {0.5, 0.9}, 2000000, false, EASNODE_CANNOT_TELL},
    };
    for (const auto& row : rows) {
        std::vector<CpuClock> clocks;
        for (int cpu = 0; cpu < 2; ++cpu)
            clocks.push_back({cpu, 2500000, row.khz[cpu] * 1000 * row.busy[cpu], row.busy[cpu]});
        EXPECT_EQ(row.verdict, judge(clocks, row.asked, row.turbo, 10).verdict)
            << row.khz[0] << ' ' << row.khz[1];
    }
    EXPECT_EQ(EASNODE_CANNOT_TELL, judge({}, 2000000, false, 10).verdict);
    EXPECT_EQ(EASNODE_CANNOT_TELL, judge({{0, 0, 3.8e7, 0.019}}, 2000000, false, 0.1).verdict);
    // The last one is idle but for 0.9 s; the others' mean is (15 x 2.0 + 5 x 1.92) / 20 GHz.
    const ClockVerdict found = judge({{4, 2500000, 20e9, 10},
                                      {5, 2500000, 9.6e9, 5},
                                      {7, 2500000, 10e9, 5},
                                      {8, 2500000, 9e8, 0.9}},
                                     2000000, false, 10);
    EXPECT_DOUBLE_EQ(1980000, found.mean_khz);
    EXPECT_DOUBLE_EQ(1920000, found.slowest_khz);
    EXPECT_DOUBLE_EQ(2000000, found.fastest_khz);
    EXPECT_DOUBLE_EQ(20.9, found.busy_seconds);
    EXPECT_EQ(5004, found.slowest_cpu * 1000 + found.fastest_cpu);
}

}  // namespace
}  // namespace eas::node
