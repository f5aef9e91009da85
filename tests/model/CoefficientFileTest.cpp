// The reader of coefficient files.
#include "common/model/CoEffsFromFile.h"

#include "tests/model/ModelFixtures.h"
#include "tests/support/ScratchFolder.h"

namespace {

TEST(CoefficientFile, ReadsRowsUpToTheFirstWrongLine) {
    struct {
        const char* what;
        std::string content;
        int result;
        std::vector<int> frequencies;
    } const cases[] = {
        {"empty", "", 0, {}},
        {"only comments", "# a\n#b:1,2,3,4,5,6\n", 0, {}},
        {"a row without its line end", "1600000:1,2,3,4,5,6", 0, {1600000}},
        {"comment cut", "1600000:1,2,3,4,5,6 # note\n", 0, {1600000}},
        {"runs of commas", "1600000:1,,2,3,4,5,6\n", 0, {1600000}},
        {"five values", "16:1,2,3,4,5,6\n1600000:1,2,3,4,5\n20:1,2,3,4,5,6\n", 4, {16}},
        {"seven values, one a line end", "1600000:1,2,3,4,5,6,\n", 4, {}},
        {"no values", "1600000:\n", 4, {}},
        {"blank line", "16:1,2,3,4,5,6\n\n", 1, {16}},
        {"indented comment", " # indented comment\n", 1, {}},
        {"colon in the comment", "1600000 # :1,2,3,4,5,6\n", 1, {}},
        {"twice", "16:1,2,3,4,5,6\n16:1,2,3,4,5,6\n", 0, {16, 16}},
        {"no numbers", "x:a,b,c,d,e,f\n", 0, {0}},
        {"zero byte", std::string("16:1,2\0,3,4,5,6\n", 16), 4, {}},
        {"long line", "16:1,2,3,4,5,6" + std::string(1100, ' ') + "\n", 1, {16}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CoEffsFromFile reader;
        const eas::test::ScratchFile file(c.content);
        EXPECT_EQ(reader.ReadCoefficientsFromFile(file.path().c_str()), c.result);
        EXPECT_EQ(reader.energy_err_reason, c.result);
        EXPECT_EQ(reader.getFrequencies(), c.frequencies);
        EXPECT_EQ(reader.getFactorF().size(), c.frequencies.size());
    }
}

TEST(CoefficientFile, RefusesWhatCannotBeRead) {
    CoEffsFromFile reader;
    for (const char* path :
         {static_cast<const char*>(nullptr), "/nonexistent/file", "/proc/self"}) {
        EXPECT_EQ(reader.ReadCoefficientsFromFile(path), BAD_COEFFICIENTS_FILE);
    }
}

TEST(CoefficientFile, HandsItsRowsToASetInAnyLocale) {
    eas_test::use_decimal_comma();
    CoEffsFromFile reader;
    CoEfficients set;
    set.setClusterName("c1");
    EXPECT_EQ(reader.VecToCoEfficients(nullptr), -1);
    EXPECT_EQ(reader.VecToCoEfficients(&set), 0);
    const eas::UniqueFile file = eas_test::file_of("2400000:0.98,12.5, 40.1,1.02,-.6,3e-2\n");
    ASSERT_EQ(reader.ReadCoefficients(file.get()), 0);
    EXPECT_EQ(reader.VecToCoEfficients(&set), 1);
    EXPECT_EQ(set.getClusterName(), "c1");
    EXPECT_EQ(set.frequencyArray()[0], 2400000);
    EXPECT_EQ(set.CoEfficientA_Array()[0], 0.98);
    EXPECT_EQ(set.CoEfficientC_Array()[0], 40.1);
    EXPECT_EQ(set.CoEfficientE_Array()[0], -0.6);
    EXPECT_EQ(set.CoEfficientF_Array()[0], 0.03);
    testing::internal::CaptureStdout();
    reader.print_file_coefficients();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[0]    2400000: A =     0.9800, B =    12.5000 C =    40.1000, D =     1.0200 "
              "E =    -0.6000 F =     0.0300\n");
}

}  // namespace
