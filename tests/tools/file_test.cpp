// What easctl says of a wrong command line and, line by line, of coefficient and threshold files.
#include <gmock/gmock.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tests/support/ScratchFolder.h"
#include "tests/tools/RunTool.h"

namespace eas::test {
namespace {

using ::testing::HasSubstr;

const char* const low = "1600000:0.5,20,10,0.99,-2,0.001\n";
const char* const middle = "2000000:0,0,0,0,0,0\n";
const char* const high = "4100000:1.8,-20,-9,1.01,2,-0.001\n";

TEST(CommandLine, IsRefusedInWordsAndForProgramsToo) {
    expect_all({{{}, 2, ""},
                {{"nonsense"}, 2, "nonsense"},
                {{"db", "bogus"},
                 2,
                 "\"bogus\" is no command of easctl db\n  what to do: its commands: init, check\n"},
                {{"model", "--json"}, 2, "easctl: "},
                {{"model", "fit", "m.csv", "--max-error", "nan"}, 2, "not a number of 0 or more"},
                {{"model", "fit", "m.csv", "--min-r2", "nan"}, 2, "not a number from 0 to 1"},
                {{"model", "calibrate", "--seconds", "nan"}, 2, "not a number from 0.05 to 3600"},
                {{"node", "sample", "--interval", "nan", "true"}, 2, "not a number from"},
                {{"tag", "verify", "--max-time-error", "nan"}, 2, "not a number of 0 or more"}});
    for (const std::string option : {"--help", "--version"})
        EXPECT_EQ(std::system((EAS_EASCTL " " + option + " >/dev/full 2>&1").c_str()), 1 << 8);
    // "$CLUSTER" of a script that never set it.
    const char* const empty = ": must not be empty";
    expect_all({{{"model", "remove", "--cluster", "", "--yes"}, 2, empty},
                {{"model", "list", "--dsn", ""}, 2, empty},
                {{"tag", "remove", "--user", "", "--tag", "hpl", "--yes"}, 2, empty},
                {{"tag", "remove", "--tag", "", "--user", "anna", "--yes"}, 2, empty},
                {{"node", "frequency", "--governor", ""}, 2, empty},
                {{"simulate", "j.csv", "--model", "m.txt", "--dsn", "d"}, 2, "--model excludes"}});
    const auto run = run_easctl({"model", "--json"});
    EXPECT_EQ(nlohmann::json::parse(run.out).at("error").at("name"), "usage");
}

class Thresholds : public ::testing::Test {
  protected:
    /// Checks a file against five frequencies around a default of 2 GHz; returns the document.
    nlohmann::json check(const std::string& text, int code) {
        const ScratchFile file(text);
        return document_of({"thresholds", "check", file.path(), "--model", model_.path()}, code);
    }

    ScratchFile model_{std::string(low) + middle + "2400000:1.1,-1,-1,1,1,0\n" +
                       "2800000:1.2,-2,-2,1,2,0\n" + "3200000:1.3,-3,-3,1,3,0\n" + high};
};

TEST_F(Thresholds, AreShownWithWhatIsGivenInterpolatedAndExtrapolated) {
    const nlohmann::json result = check(
        "# site\nBegin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
        "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2800MHz -8\nEnd Min_Time\n",
        0);
    EXPECT_TRUE(result.at("valid"));
    EXPECT_EQ(result.at("min_energy_pct"), 5.0);
    std::string rows;
    for (const auto& row : result.at("min_time"))
        rows += std::to_string(row.at("frequency_khz").get<int>() / 1000) + " " +
                std::to_string(std::lround(row.at("time_change_pct").get<double>())) + " " +
                row.at("source").get<std::string>() + "\n";
    EXPECT_EQ(rows,
              "2000 0 default\n2400 -4 interpolated\n2800 -8 given\n3200 -12 extrapolated\n"
              "4100 -16 extrapolated\n");
    EXPECT_TRUE(result.at("findings").empty());
}

TEST_F(Thresholds, AndModelsAreReadOnceSoThatAPipeIsAsGoodAsAFile) {
    const char* const good = "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2800MHz -8\nEnd Min_Time\n";
    for (const std::string path : {"-", "/dev/stdin"}) {
        EXPECT_EQ(run_easctl({"thresholds", "check", path, "--model", model_.path()}, good).code,
                  0);
        const auto twice =
            run_easctl({"model", "import", path, "--cluster", "c"}, std::string(low) + low);
        EXPECT_EQ(twice.code, 3);
        EXPECT_THAT(twice.err, HasSubstr(path + ":2: 1600000 kHz stands at " + path + ":1"));
    }
}

}  // namespace
}  // namespace eas::test
