// The frame of easctl: how it ends when the command line or its surroundings are wrong.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/tools/RunTool.h"

namespace {

using eas::test::run_easctl;

TEST(Frame, WrongCommandLinesAreUsageErrorsWhichAlsoProgramsCanRead) {
    EXPECT_EQ(run_easctl({}).code, 2);
    EXPECT_EQ(run_easctl({"nonsense"}).code, 2);
    EXPECT_NE(run_easctl({"db", "bogus"})
                  .err.find("\"bogus\" is no command of easctl db\n  what to do: its commands: "
                            "init, check\n"),
              std::string::npos);
    const auto run = run_easctl({"model", "--json"});
    EXPECT_EQ(run.code, 2);
    EXPECT_NE(run.err.find("easctl: "), std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(run.out).at("error").at("name"), "usage");
}

TEST(Frame, EveryCommandShowsHelpWithExamples) {
    const std::vector<std::vector<std::string>> commands{
        {"--help"}, {"db", "check", "-h"}, {"model", "import", "-h"}, {"doctor", "-h"}};
    for (const auto& command : commands) {
        const auto run = run_easctl(command);
        EXPECT_EQ(run.code, 0);
        EXPECT_EQ(run.out.find('\033'), std::string::npos);
        EXPECT_NE(run.out.find("Usage: easctl"), std::string::npos) << run.out;
        EXPECT_NE(run.out.find("  easctl "), std::string::npos) << run.out;
    }
}

}  // namespace
