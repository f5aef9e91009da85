// The threshold file: sections, lines, interpolation.
#include <optional>

#include "common/model/EnergyPerfThreshold.h"
#include "tests/model/ModelFixtures.h"
#include "tests/support/ScratchFolder.h"

namespace {

using Map = std::map<int, double>;

EnergyPerfThreshold parse(CoEfficients* set, const std::string& content) {
    return EnergyPerfThreshold(set, eas::test::ScratchFile(content).path().c_str());
}

std::string time_section(const std::string& lines) {
    return "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n" + lines + "End Min_Time\n";
}

/// Five frequencies, 1.6 GHz the default.
CoEfficients five() {
    return eas_test::make_set({1200000, 1600000, 2000000, 2400000, 2800000}, 1600000);
}

TEST(Thresholds, ReadBothSectionsInEitherOrderAndAnyLocale) {
    eas_test::use_decimal_comma();
    const std::string energy =
        "begin   min_energy\nBegin Min_Time\nTHRESHOLD_RUNTIME_VAR = 5.5\nEND MIN_ENERGY now\n";
    const std::string time = time_section("2.0GHz -5\n2.4GHz -8.5 # fast\n#2.4GHz -1\n2.8 -9\n");
    CoEfficients set = five();
    for (const std::string& content : {energy + time, "noise\n\n" + time + " " + energy,
                                       energy + time + "Begin Min_Time\ngarbage\n"}) {
        const EnergyPerfThreshold t = parse(&set, content);
        EXPECT_TRUE(t.isValid());
        EXPECT_FALSE(t.isAllCommentOut());
        EXPECT_EQ(t.get_def_perf(), 5.5);
        EXPECT_EQ(t.getThresValue(),
                  (Map{{1600000, 0.0}, {2000000, -0.05}, {2400000, -0.085}, {2800000, -0.09}}));
    }
}

TEST(Thresholds, AreNotValidInAWrongFile) {
    const std::string good = time_section("2.0GHz -5\n");
    struct {
        const char* what;
        std::string content;
        bool all_comment_out;
    } const cases[] = {
        {"empty", "", true},
        {"only comments", "# a\n   # b\n\n \t\n", true},
        {"only noise", "x\n", false},
        {"energy section not closed", good + "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR=5\n", false},
        {"time section not closed", "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2.0GHz -5\n", false},
        {"no header", "Begin Min_Time\n2.0GHz -5\nEnd Min_Time\n", false},
        {"header without a blank", "Begin Min_Time\nCPU_FREQ\vRUNTIME_VAR\n2 -5\nEnd Min_Time\n",
         false},
        {"empty time section", "Begin Min_Time\nEnd Min_Time\n", false},
        {"time section without data", time_section(""), false},
        {"wrong time section, then a good one", time_section("") + good, false},
        {"missing time section", "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR=5\nEnd Min_Energy\n",
         false},
    };
    CoEfficients set = five();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const EnergyPerfThreshold t = parse(&set, c.content);
        EXPECT_FALSE(t.isValid());
        EXPECT_EQ(t.isAllCommentOut(), c.all_comment_out);
    }
    for (const char* path :
         {static_cast<const char*>(nullptr), "/nonexistent/file", "/proc/self"}) {
        EXPECT_FALSE(EnergyPerfThreshold(&set, path).isValid());
        EXPECT_TRUE(EnergyPerfThreshold(&set, path).isAllCommentOut());
    }
}

TEST(Thresholds, NeedNoTimeSectionWhenTheDefaultIsTheTopFrequency) {
    CoEfficients top = eas_test::make_set({1200000, 1600000}, 1600000);
    const EnergyPerfThreshold t = parse(&top, "#\n");
    EXPECT_TRUE(t.isValid());
    EXPECT_TRUE(t.isAllCommentOut());
    EXPECT_TRUE(parse(&top, time_section("x\n")).isValid());
    EXPECT_FALSE(EnergyPerfThreshold(&top, "/proc/self").isValid());
    // An assignment leaves the commented-out mark of its target alone.
    EnergyPerfThreshold source = parse(&top, "#\n"), target;
    target = source;
    EXPECT_TRUE(target.isValid());
    EXPECT_FALSE(target.isAllCommentOut());
}

TEST(Thresholds, TakeTheFirstUsableEnergyLine) {
    const std::pair<const char*, double> cases[] = {
        {"THRESHOLD_RUNTIME_VAR = 5", 5.0},
        {"threshold_runtime_var=5.", 5.0},
        {"THRESHOLD_RUNTIME_VAR x = 1 2\t7.25", 7.25},
        {"THRESHOLD_RUNTIME_VAR=-1", 0.0},
        {"THRESHOLD_RUNTIME_VAR=-1\nTHRESHOLD_RUNTIME_VAR=3\nTHRESHOLD_RUNTIME_VAR=4", 3.0},
        {"THRESHOLD_RUNTIME_VAR=0\nTHRESHOLD_RUNTIME_VAR=4", 0.0},
        {"THRESHOLD_RUNTIME_VAR=1e1", 0.0},
        {"THRESHOLD_RUNTIME_VAR=", 0.0},
        {"=5", 0.0},
        {"THRESHOLD=5", 0.0},
        {"5", 0.0},
    };
    CoEfficients set = five();
    for (const auto& [lines, expected] : cases) {
        SCOPED_TRACE(lines);
        const EnergyPerfThreshold t =
            parse(&set, std::string("Begin Min_Energy\n") + lines + "\nEnd Min_Energy\n" +
                            time_section("2.0GHz -5\n"));
        EXPECT_TRUE(t.isValid());
        EXPECT_EQ(t.get_def_perf(), expected);
    }
}

TEST(Thresholds, AcceptOnlyFrequenciesOfTheSetAboveTheDefault) {
    const std::pair<int, std::vector<const char*>> cases[] = {
        {2600000, {"2.6GHz", "2.6", "2600MHz", "2600000KHz", "+2.6GHz"}},
        {4100000, {"4100MHz"}},
        {0, {"2600000", "2.6ghz", "2600.0MHz", "2.6GHzx", "GHz", "-"}},  // no frequency
        {0, {"1.6GHz", "1.2GHz", "2.7GHz", "4.1GHz"}},  // not above the default, not in the set
        {0, {"2600000GHz", "4297567MHz", "4297567296KHz", "99999999999999999999MHz"}},  // too large
    };
    CoEfficients set = eas_test::make_set({1200000, 1600000, 2600000, 4100000}, 1600000);
    for (const auto& [expected, texts] : cases) {
        for (const std::string text : texts) {
            SCOPED_TRACE(text);
            int freq = 0;
            EXPECT_EQ(EnergyPerfThreshold(&set, nullptr).get_freq(text.c_str(), freq),
                      expected != 0 ? 0 : 1);
            EXPECT_EQ(expected != 0 ? freq : 0, expected);
            // The reader itself: what is not taken follows from the other frequency.
            const std::string other = expected == 2600000 ? "4100MHz -1\n" : "2600MHz -1\n";
            const Map values =
                parse(&set, time_section(other + text + "  ignored \t -5\n")).getThresValue();
            EXPECT_EQ(values.at(expected != 0 ? expected : 2600000), expected != 0 ? -0.05 : -0.01);
        }
    }
}

// The values that are not plain were calculated apart from the library, in Python's doubles.
TEST(Thresholds, InterpolateWhatTheTimeSectionLeavesOut) {
    struct {
        const char* what;
        const char* lines;
        std::optional<std::vector<double>> percent;  // from 2.0 GHz up; none: not valid
    } const cases[] = {
        {"all given, a later line counts",
         "2.0 -1\n2.2 -9\n2.4 -3\n2.6 -4\n2.8 -5\n2.2 -2\n",
         {{-1, -2, -3, -4, -5}}},
        {"gap from the default, then extended", "2.4 -6\n", {{-2, -4, -6, -8, -10}}},
        {"the end of a gap is written again",
         "2.4 -7.3\n2.6 -7\n2.8 -7\n",
         {{-2.433333333333333, -4.866666666666666, -7.299999999999999, -7, -7}}},
        {"two gaps", "2.2 -4\n2.6 -6\n2.8 -6\n", {{-2, -4, -5, -6, -6}}},
        {"extended from the last two", "2.0 -1\n2.2 -3\n", {{-1, -3, -5, -7, -9}}},
        {"a falling gap's slope is not kept", "2.2 -4\n2.4 -5\n", {{-2, -4, -5, -6, -7}}},
        {"a climbing gap's slope goes on from its own end",
         "2.0 -20\n2.4 -10\n2.6 -30\n",
         {{-20, -15, -10, -30, -5}}},
        {"climbing above 0", "2.0 -10\n2.2 -5\n", {}},
        {"climbing to 0 exactly",
         "2.0 -10\n2.2 -7.5\n2.4 -5\n2.6 -2.5\n",
         {{-10, -7.5, -5, -2.5, 0}}},
        {"not negative: dropped", "2.0 -1\n2.2 5\n2.2 0\n2.2 -1,5\n", {{-1, -2, -3, -4, -5}}},
    };
    const std::vector<int> above{2000000, 2200000, 2400000, 2600000, 2800000};
    CoEfficients set = eas_test::make_set(
        {1200000, 1800000, 2000000, 2200000, 2400000, 2600000, 2800000}, 1800000);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const EnergyPerfThreshold t = parse(&set, time_section(c.lines));
        EXPECT_EQ(t.isValid(), c.percent.has_value());
        Map expected;
        if (c.percent) {
            expected[1800000] = 0.0;
            for (std::size_t i = 0; i < above.size(); ++i) {
                expected[above[i]] = (*c.percent)[i] / 100.0;
            }
        }
        EXPECT_EQ(t.getThresValue(), expected);
    }
}

TEST(Thresholds, RefuseValuesThatInterpolateToNoNumber) {
    CoEfficients set = five();
    const std::string huge = "-" + std::string(400, '9');
    EXPECT_FALSE(parse(&set, time_section("2.0 " + huge + "\n2.4 " + huge + "\n")).isValid());
}

TEST(Thresholds, AreSafeWithOddSets) {
    const std::string data = time_section("2.0GHz -5\n2.4GHz -8\n");
    EXPECT_FALSE(parse(nullptr, data).isValid());
    EXPECT_FALSE(parse(nullptr, "").isValid());
    EnergyPerfThreshold unset;
    unset.readThresholds("/dev/null");
    EXPECT_FALSE(unset.isValid());
    EXPECT_FALSE(unset.isAllCommentOut());
    Map values{{1600000, 0.0}};
    EXPECT_NE(unset.linearData(values), 0);

    struct {
        std::vector<int> frequencies;
        int default_frequency;
        bool valid;
    } const cases[] = {
        {{}, 0, false},
        {{1600000, 2000000}, 1, false},                         // no marker row
        {{1600000, 2000000, 2000000, 2400000}, 1600000, true},  // one twice
        {{1600000, 2000000, 2400000, 2400000}, 1600000, true},
        {{1600000, 2200000, 2200000, 2400000}, 1600000, true},   // twice in a gap
        {{2400000, 2000000, 1600000, 2800000}, 1600000, false},  // all given lie below
        {{2400000, 1600000, 2800000, 2000000}, 1600000, true},
    };
    for (const auto& c : cases) {
        CoEfficients set = eas_test::make_set(c.frequencies, c.default_frequency);
        EXPECT_EQ(parse(&set, data).isValid(), c.valid) << testing::PrintToString(c.frequencies);
    }

    CoEfficients set = five();
    EnergyPerfThreshold t(&set, nullptr);
    for (Map odd : {Map{{1, -1}, {2, -1}}, Map{{1600000, 0}, {1, -1}}, Map{{2800000, 0}, {1, 0}},
                    Map{{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}, {6, 0}}}) {
        EXPECT_LT(t.linearData(odd), 0);
    }
}

TEST(Thresholds, ReadLongLinesAsSeveral) {
    CoEfficients set = five();
    const std::string data = "2.0GHz -5" + std::string(1014, ' ') + "2.4GHz -6\n";
    EXPECT_EQ(parse(&set, time_section(data)).getThresValue().at(2400000), -0.06);
    const std::string comment = "#" + std::string(1022, 'x') + "2.0GHz -5\n";
    EXPECT_EQ(parse(&set, time_section(comment)).getThresValue().at(2000000), -0.05);
    const std::string zero_byte("2.0GHz -5\0 -7\n", 14);
    EXPECT_EQ(parse(&set, time_section(zero_byte)).getThresValue().at(2000000), -0.05);
}

}  // namespace
