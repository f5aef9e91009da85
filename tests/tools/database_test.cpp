// easctl against real databases: the tables, the coefficients, the whole chain.
#include <gmock/gmock.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "base/UniqueFd.h"
#include "tests/support/ScratchDatabase.h"
#include "tests/support/ScratchFolder.h"
#include "tests/tools/RunTool.h"

namespace eas::test {
namespace {

using ::testing::HasSubstr;

class Tool : public DatabaseTest {
  protected:
    [[nodiscard]] bool sqlite() const { return GetParam() == Engine::sqlite; }
};

INSTANTIATE_TEST_SUITE_P(On, Tool, both_engines(), engine_suffix);

TEST_P(Tool, MakesTheTablesThatAreMissingAndLeavesTheOthers) {
    EXPECT_EQ(run_easctl({"db", "check", "--grants"}).code, 0);
    database().seed_coefficients("kept", 2300000, 1200000, 100000, 16);
    plain().run("drop table TQVN_EnergyPolicyTag");
    expect_all({{{"db", "check"}, 1, "TQVN_EnergyPolicyTag: error: the table is missing"},
                {{"db", "init"}, 0, "created TQVN_EnergyPolicyTag"},
                {{"db", "init"}, 0, "ok: "},
                {{"db", "check"}, 0, ""}});
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 16);
}

TEST_P(Tool, CarriesCoefficientsThroughTheDatabaseToTheBit) {
    const std::string rows =
        "1600000:0.30000000000000004,107.33333333333333,1e-05,0.99,-2.25,0.001\n"
        "2000000:0,0,0,0,0,0\n"
        "2400000:1.1,-1.9999999999999998,-0.1,1.0000000000000002,1.5,0\n";
    const ScratchFile file("# comment\n" + rows);
    const std::vector<std::string> import{"model", "import", file.path(), "--cluster", "c"};
    auto dry = import;
    dry.emplace_back("--dry-run");
    EXPECT_EQ(run_easctl(dry).code, 0);
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 0);
    expect_all({{import, 0, ", stored ("}, {import, 0, "stored already"}});
    const ScratchFile exported("");
    ASSERT_EQ(run_easctl({"model", "export", "--cluster", "c", "--output", exported.path()}).code,
              0);
    EXPECT_THAT(exported.text(), HasSubstr(rows));
    expect_all({
        {{"model", "list", "--format", "csv"}, 0, "\nc,2000000,3,1600000,2400000,0\n"},
        {{"model", "show", "--cluster", "c"}, 0, "2.40"},
        {{"model", "remove", "--cluster", "c"}, 2, ""},
    });
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 3);
    EXPECT_EQ(run_easctl({"model", "remove", "--cluster", "c", "--yes"}).code, 0);
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 0);
}

TEST_P(Tool, LosesNoCoefficientWhenAnImportFails) {
    const ScratchFile first("1600000:0.5,2,1,0.99,0,0\n2000000:0,0,0,0,0,0\n");
    const ScratchFile second("1800000:0.7,2,1,0.99,0,0\n2000000:0,0,0,0,0,0\n");
    ASSERT_EQ(run_easctl({"model", "import", first.path(), "--cluster", "c"}).code, 0);
    const auto stored = [&] {
        return plain().run("select * from TQVN_EnergyCoEfficients order by 3,1");
    };
    const auto before = stored();
    expect_all({{{"model", "import", second.path(), "--cluster", "c"}, 4, "--replace"}});
    EXPECT_EQ(stored(), before);

    plain().run(sqlite()
                    ? "create trigger refuse before insert on TQVN_EnergyCoEfficients when "
                      "new.frequency = 2000000 begin select raise(abort, 'refused by test'); end"
                    : "create trigger refuse before insert on TQVN_EnergyCoEfficients for each row "
                      "if new.frequency = 2000000 then signal sqlstate '45000' set message_text = "
                      "'refused by test'; end if");
    const std::vector<std::string> replace{"model",     "import", second.path(),
                                           "--cluster", "c",      "--replace"};
    expect_all({{replace, 4, "refused by test"}});
    EXPECT_EQ(stored(), before);
    plain().run("drop trigger refuse");
    EXPECT_EQ(run_easctl(replace).code, 0);
    EXPECT_NE(stored(), before);
}

/// The statuses of doctor's links, "name=status", one per line.
std::string statuses(std::vector<std::string> arguments, int code) {
    arguments.insert(arguments.begin(), "doctor");
    std::string text;
    const auto document = document_of(std::move(arguments), code);
    for (const auto& link : document.at("links"))
        text +=
            link.at("name").get<std::string>() + "=" + link.at("status").get<std::string>() + "\n";
    return text;
}

TEST_P(Tool, DoctorFindsTheBrokenLink) {
    database().seed_coefficients("c", 2000000, 1600000, 400000, 2);
    const ScratchFile thresholds("# only the default\n");
    const std::vector<std::string> all{"--cluster", "c", "--thresholds", thresholds.path()};
    // Neither scratch database waits for the disk, which is worth a warning.
    EXPECT_THAT(statuses(all, 0), HasSubstr("connection=ok\nschema=warning\nrights of the "
                                            "account=ok\ncoefficients of c=ok\nthresholds"));
    EXPECT_THAT(statuses({"--dsn", "nodsn"}, 1),
                HasSubstr("data source nodsn=missing\ndriver=skipped\nconnection=skipped\n"
                          "schema=skipped\nrights of the account=skipped\ncoefficients=skipped"));
    EXPECT_THAT(statuses({"--cluster", "d"}, 1), HasSubstr("coefficients of d=missing"));
    // The only cluster needs no name; with a choice, what was asked for is not looked at.
    ::setenv("EASCTL_THRESHOLDS", thresholds.path().c_str(), 1);
    EXPECT_THAT(statuses({}, 0), HasSubstr("coefficients of c=ok\nthresholds"));
    database().seed_coefficients("other", 2000000, 1600000, 400000, 2);
    EXPECT_THAT(statuses({}, 1),
                HasSubstr("coefficients=ok\nthresholds " + thresholds.path() + "=skipped"));
    ::unsetenv("EASCTL_THRESHOLDS");
    plain().run(
        "update TQVN_EnergyCoEfficients set default_frequency = 1600000 where cluster_name = "
        "'other'");
    EXPECT_THAT(run_easctl({"doctor", "--cluster", "other"}).out,
                HasSubstr("the row of zeros is that of 2000000 kHz, not of 1600000"));
    plain().run("update TQVN_EnergyCoEfficients set factor_d = -9 where cluster_name = 'other'");
    EXPECT_THAT(statuses({"--cluster", "other"}, 1), HasSubstr("coefficients of other=wrong"));
    const auto shown = document_of({"model", "show", "--cluster", "other"}, 1);
    EXPECT_FALSE(shown.at("findings").empty());
    std::ofstream(database().folder() / "odbcinst.ini", std::ios::app)
        << "\n[ODBC]\nPooling = Yes\n";
    EXPECT_THAT(statuses({}, 0), HasSubstr("ODBC pooling=warning"));
    plain().run("drop table TQVN_EnergyPolicyTag");
    EXPECT_THAT(statuses({}, 1),
                HasSubstr("schema=wrong\nrights of the account=skipped\ncoefficients=skipped"));
    std::ofstream(database().folder() / "odbcinst.ini")
        << "[" << (sqlite() ? "SQLite3" : "MariaDB Unicode") << "]\nDriver = /nonexistent.so\n";
    EXPECT_THAT(statuses(all, 1), HasSubstr("=missing\nconnection=skipped\nschema=skipped\n"));
    EXPECT_THAT(statuses(all, 1), HasSubstr("coefficients of c=skipped\nthresholds "));
    std::ofstream(database().folder() / "odbcinst.ini") << "";
    EXPECT_THAT(run_easctl({"doctor"}).out, HasSubstr("no driver of that name is registered"));
    std::ofstream(database().folder() / "odbc.ini", std::ios::app)
        << "\n [ EASDB ]\nDriver = other\n";
    EXPECT_THAT(run_easctl({"doctor"}).out, HasSubstr(" counts, driver "));
    EXPECT_EQ(run_easctl({"doctor", "--default-frequency", "-5"}).code, 2);
}

TEST(ToolOnSqlite, PrintsWhatTheTranscriptSays) {
    const ScratchDatabase database(Engine::sqlite);
    expect_transcript("database");
}

TEST(ToolOnSqlite, MakesNoFileWhereThePathIsWrongButToInitialise) {
    ScratchDatabase database(Engine::sqlite);
    database.disconnect();
    const auto path = database.folder() / "easdb.sqlite";
    std::filesystem::remove(path);
    const std::string message = path.string() + ": there is no such file";
    expect_all(
        {{{"doctor"}, 1, message}, {{"db", "check"}, 4, message}, {{"model", "list"}, 4, message}});
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(run_easctl({"db", "init"}).code, 0);
    std::ofstream(path) << "no database, but a text that is long enough to be looked at as one";
    EXPECT_THAT(run_easctl({"db", "check"}).err, HasSubstr("is damaged"));
}

TEST(ToolOnSqlite, GivesTheTerminalItsEchoBackWhenASignalEndsTheQuestionForAPassword) {
    const ScratchDatabase database(Engine::sqlite);
    int master = -1;
    const pid_t child = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (child == 0) {
        ::alarm(30);
        ::execl(EAS_EASCTL, "easctl", "db", "check", "--user", "anna", nullptr);
        ::_exit(127);
    }
    const UniqueFd keyboard(master);
    const auto echoes = [&] {
        termios state{};
        return ::tcgetattr(master, &state) == 0 && (state.c_lflag & ECHO) != 0;
    };
    std::string shown;
    std::array<char, 256> text{};
    while (shown.find("Password of anna for easdb: ") == std::string::npos) {
        const ssize_t length = ::read(master, text.data(), text.size());
        ASSERT_GT(length, 0) << shown;
        shown.append(text.data(), static_cast<std::size_t>(length));
    }
    EXPECT_FALSE(echoes());
    ASSERT_EQ(::write(master, "\x03", 1), 1);  // Ctrl-C
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
    EXPECT_TRUE(echoes());
}

TEST(ToolOnMariaDb, PrintsWhatTheTranscriptSays) {
    if (const auto why = ScratchDatabase::missing(Engine::mariadb))
        GTEST_SKIP() << *why;
    const ScratchDatabase database(Engine::mariadb);
    expect_transcript("server");
}

}  // namespace
}  // namespace eas::test
