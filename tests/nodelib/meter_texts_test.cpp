// What the meter makes of the kernel's texts and numbers, apart from where they come from.
#include <gmock/gmock.h>

#include "node/meter/Integrator.h"
#include "node/meter/NodeCounters.h"
#include "node/meter/PerfGroup.h"
#include "node/meter/PmuDevice.h"
#include "node/meter/PowerMeter.h"
#include "node/meter/Powercap.h"
#include "node/meter/Resctrl.h"
#include "node/meter/SiteCommand.h"
#include "node/meter/SourceTable.h"

namespace eas::node {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

uint64_t placed(uint64_t value, const char* format) {
    const auto bits = parse_term_bits(format);
    const auto config = bits ? place_bits(value, *bits) : std::nullopt;
    return config.value_or(~0ULL);
}

TEST(PmuFormats, PutTheBitsOfATermWhereTheKernelWantsThem) {
    EXPECT_EQ(0xcf05U, placed(0x05, "config:0-7") | placed(0xcf, "config:8-15"));
    // Channel 4 of an older data fabric: the event number is wider than its first range.
    EXPECT_EQ(0x100003807U, placed(0x107, "config:0-7,32-35,59-60") | placed(0x38, "config:8-15"));
    EXPECT_EQ(1ULL << 63, placed(1, "config:63"));
    EXPECT_EQ(~0ULL - 1, placed(~0ULL - 1, "config:0-63"));
    EXPECT_EQ(~0ULL, placed(0x100, "config:0-7")) << "does not fit";
    for (const char* text : {"", "config", "config:", "config1:0-7", "config:8-7", "config:0-64",
                             "config:x", "config:-1", "config:0 -7"})
        EXPECT_FALSE(parse_term_bits(text)) << text;
}

TEST(PmuFormats, TermsAreReadWholeOrNotAtAll) {
    EXPECT_THAT(parse_terms("event=0x04,umask=0x03,edge").value(),
                ElementsAre(std::pair("event", 4), std::pair("umask", 3), std::pair("edge", 1)));
    for (const char* text : {"", "=1", "event=", "event=0x", "event=4 ", "event=-4", ",event=1",
                             "event=0x10000000000000000"})
        EXPECT_FALSE(parse_terms(text)) << text;
    EXPECT_TRUE(is_of_family("uncore_imc", "uncore_imc"));
    EXPECT_TRUE(is_of_family("uncore_imc_12", "uncore_imc"));
    for (const char* name : {"uncore_imc_free_running_0", "uncore_imc_", "uncore_imc0", "uncore_i"})
        EXPECT_FALSE(is_of_family(name, "uncore_imc")) << name;
}

TEST(PowercapZones, AreAddedUpOnceEach) {
    // Numbers are hexadecimal, the platform lies between packages, a second driver repeats one.
    const std::vector<PowerZone> intel = {
        {"intel-rapl", ""},         {"intel-rapl-mmio:0", "package-0"},
        {"intel-rapl:0", "psys"},   {"intel-rapl:1", "package-0-die-0"},
        {"intel-rapl:1:0", "dram"}, {"intel-rapl:1:1", "core"},
        {"intel-rapl:9", "dram"},   {"intel-rapl:a", "package-0-die-1"},
        {"intel-rapl:a:0", "dram"}, {"intel-rapl-mmio:0:0", "dram"},
        {"dtpm", "package-7"},      {"intel-rapl:b", "package-x"},
    };
    const PowerZones dies_add_up = choose_zones(intel, false);
    EXPECT_THAT(dies_add_up.packages, ElementsAre("intel-rapl:1", "intel-rapl:a"));
    EXPECT_THAT(dies_add_up.memory, ElementsAre("intel-rapl:1:0", "intel-rapl:a:0"));
    EXPECT_EQ("intel-rapl:0", dies_add_up.platform);
    const PowerZones dies_repeat = choose_zones(intel, true);
    EXPECT_THAT(dies_repeat.packages, ElementsAre("intel-rapl:1"));
    EXPECT_THAT(dies_repeat.memory, ElementsAre("intel-rapl:1:0"));
}

TEST(PowerMeters, OfOneLevelAreAddedUpAndNeverLevels) {
    const std::vector<MeterInfo> module = {{"a", "CPU Power Socket 0"},
                                           {"b", "Grace Power Socket 0"},
                                           {"c", "Module Power Socket 0"},
                                           {"d", "Module Power Socket 1"},
                                           {"e", "SysIO Power Socket 0"}};
    EXPECT_THAT(choose_meters(module).folders, ElementsAre("c", "d"));
    EXPECT_EQ(EASNODE_MODULES, choose_meters(module).extent);
    EXPECT_THAT(choose_meters({module[0], module[1]}).folders, ElementsAre("b"));
    EXPECT_THAT(choose_meters({{"x", ""}}).folders, ElementsAre("x"));
    EXPECT_EQ(EASNODE_NODE, choose_meters({{"x", "Vendor"}}).extent);
    for (const auto& meters : {std::vector<MeterInfo>{}, {{"x", ""}, {"y", ""}}, {module[4]}}) {
        EXPECT_THAT(choose_meters(meters).folders, IsEmpty());
        EXPECT_STRNE("", choose_meters(meters).words);
    }
}

TEST(SiteCommandOutput, IsOneQuantityOrTheLineOfAKnownTool) {
    const struct {
        const char* text;
        bool joules;
        double value;  // -1: none
    } rows[] = {
        {"215\n", false, 215},
        {" 215.5 W \n", false, 215.5},
        {"0.4 kW", false, 400},
        {"12 J\n", true, 12},
        {"3 kWh", true, 10.8e6},
        {"0\n", true, 0},
        {"1e3 watts", false, 1000},
        {"5e5 mW", false, 500},
        {"2 Wh", true, 7200},
        {"8e6 uJ", true, 8},
        {"\n  Instantaneous power reading:                   215 Watts\n"
         "  Minimum during sampling period:                 54 Watts\n",
         false, 215},
        {"Current Power                        : 164 Watts\n", false, 164},
        // Absent sensors say 0; the rest is nonsense.
        {"0 W", false, -1},
        {"Instantaneous power reading: 0 Watts", false, -1},
        {"-5 W", false, -1},
        {"", false, -1},
        {"215 W 216 W", false, -1},
        {"215 J", false, -1},
        {"215 W", true, -1},
        {"nan", false, -1},
        {"inf W", false, -1},
        {"1e9 W", false, -1},
        {"215,5 W", false, -1},
        {"215 volts", false, -1},
        {"error: timeout 30", false, -1},
        {"Current Power : n/a", false, -1},
    };
    for (const auto& row : rows)
        EXPECT_DOUBLE_EQ(row.value, parse_command_output(row.text, row.joules).value_or(-1))
            << row.text;
}

TEST(NodeCounterText, HoldsJoulesAndPerhapsTheTime) {
    EXPECT_EQ(598732067U, parse_joules("598732067 J").value_or(0));
    EXPECT_EQ(598732067U, parse_joules("598732067 J 1764205321000000 us").value_or(0));
    for (const char* text : {"", "598732067", "5 W", "J", "-5 J", "5.5 J", "5 J 7", "5 J x us"})
        EXPECT_FALSE(parse_joules(text)) << text;
    EXPECT_TRUE(is_mounted("proc /proc proc rw 0 0\nresctrl /sys/fs/resctrl resctrl rw 0 0"));
    EXPECT_FALSE(is_mounted("resctrl /mnt resctrl rw 0 0\nx /sys/fs/resctrl tmpfs rw 0 0\n"));
}

TEST(EventReadings, AreScaledByDifferencesAndNeverInvented) {
    using Totals = std::array<uint64_t, most_events>;
    EventReading before{1000, 1000, {50, 70}};
    Totals totals{};
    EXPECT_EQ(Progress::counted, add_difference(before, {2000, 2000, {150, 270}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(100, 200, 0, 0));
    // A quarter of the next period only.
    EXPECT_EQ(Progress::scaled, add_difference(before, {3000, 2250, {160, 290}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(140, 280, 0, 0));
    // Not at all: what comes next stands for both periods.
    EXPECT_EQ(Progress::no_data, add_difference(before, {4000, 2250, {160, 290}}, 2, totals));
    EXPECT_EQ(Progress::scaled, add_difference(before, {5000, 3250, {260, 390}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(340, 480, 0, 0));
    EXPECT_EQ(Progress::stopped, add_difference(before, {5000, 3250, {260, 390}}, 2, totals));
    EXPECT_EQ(Progress::unreadable, add_difference(before, {6000, 4250, {270, 380}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(340, 480, 0, 0));
}

TEST(PowerIntegral, IsATrapezoidUntilNobodyLooked) {
    constexpr Nanoseconds second = 1'000'000'000;
    Integrator integral;
    integral.start(10 * second, 100);
    EXPECT_TRUE(integral.add(12 * second, 200));
    EXPECT_TRUE(integral.add(13 * second, 200));
    EXPECT_DOUBLE_EQ(500, integral.joules());
    EXPECT_EQ(
        "meter, integrated from 3 samples every 1.5 s; below 30 s it errs by about 1 s of "
        "power",
        integral.words("meter"));
    EXPECT_TRUE(integral.add(73 * second, 300)) << "a minute";
    EXPECT_DOUBLE_EQ(500 + 250 * 60, integral.joules());
    EXPECT_EQ("meter, integrated from 4 samples every 21.0 s", integral.words("meter"));
    EXPECT_FALSE(integral.add(134 * second, 200));
}

TEST(SourceOrder, IsTheDefaultOneOrTheOneAskedFor) {
    const auto names = [](SourceList list, const char* text, bool estimates, bool command) {
        std::string joined;
        const auto rows = parse_sources(list, text, estimates, command);
        if (!rows)
            return std::string("refused");
        for (const SourceRow* row : *rows)
            joined += std::string(row->name) + " ";
        return joined;
    };
    EXPECT_EQ("imc umc arm df resctrl registers ",
              names(SourceList::memory, nullptr, false, false));
    EXPECT_EQ("imc umc arm df resctrl registers misses ",
              names(SourceList::memory, nullptr, true, false));
    EXPECT_EQ("command pm_counters qpx hwmon rapl-perf powercap ",
              names(SourceList::energy, nullptr, false, true));
    EXPECT_EQ("psys powercap ", names(SourceList::energy, "psys, powercap", false, false));
    EXPECT_EQ("", names(SourceList::energy, "none", false, true));
    for (const char* text : {"", "imc", "psys,", "powercap,,psys", "none,psys", "PSYS"})
        EXPECT_EQ("refused", names(SourceList::energy, text, false, false)) << text;
}

}  // namespace
}  // namespace eas::node
