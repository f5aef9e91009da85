// easctl against real databases: the tables, the coefficients, the whole chain.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "base/UniqueFd.h"
#include "tests/support/ScratchDatabase.h"
#include "tests/support/ScratchFolder.h"
#include "tests/tools/RunTool.h"

namespace {

using eas::test::Engine;
using eas::test::run_easctl;
using eas::test::ScratchDatabase;
using eas::test::ScratchFile;
using eas::test::ToolRun;
using ::testing::HasSubstr;

class Tool : public eas::test::DatabaseTest {
  protected:
    [[nodiscard]] bool sqlite() const { return GetParam() == Engine::sqlite; }
    std::string names_and_values() {
        std::string all;
        for (const auto& row : plain().run("select * from TQVN_EnergyCoEfficients order by 3,1")) {
            for (const std::string& value : row)
                all += value + ' ';
        }
        return all;
    }
};

INSTANTIATE_TEST_SUITE_P(On, Tool, eas::test::both_engines(), eas::test::engine_suffix);

TEST_P(Tool, MakesTheTablesThatAreMissingAndLeavesTheOthers) {
    EXPECT_EQ(run_easctl({"db", "check", "--grants"}).code, 0) << run_easctl({"db", "check"}).out;
    database().seed_coefficients("kept", 2300000, 1200000, 100000, 16);
    plain().run("drop table TQVN_EnergyPolicyTag");
    const auto broken = run_easctl({"db", "check"});
    EXPECT_EQ(broken.code, 1);
    EXPECT_THAT(broken.out, HasSubstr("TQVN_EnergyPolicyTag: error: the table is missing"));
    for (const char* created : {"created TQVN_EnergyPolicyTag", "ok: "}) {
        const auto run = run_easctl({"db", "init"});
        EXPECT_EQ(run.code, 0) << run.out << run.err;
        EXPECT_THAT(run.out, HasSubstr(created));
    }
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 16);
    EXPECT_EQ(run_easctl({"db", "check"}).code, 0);
}

TEST_P(Tool, SaysWhatDiffersFromTheTablesThatTheLibraryNeeds) {
    plain().run("drop table TQVN_EnergyCoEfficients");
    plain().run(std::string("create table TQVN_EnergyCoEfficients (default_frequency int not null, "
                            "frequency bigint not null, cluster_name varchar(40), "
                            "factor_a double not null, factor_b double not null, factor_c double "
                            "not null, factor_d double not null, factor_e double not null, "
                            "factor_f double not null)") +
                (sqlite() ? "" : " engine=MyISAM"));
    plain().run(sqlite() ? "drop index TQVN_EnergyPolicyTag_by_tag"
                         : "alter table TQVN_EnergyPolicyTag drop key TQVN_EnergyPolicyTag_by_tag");
    plain().run("alter table TQVN_EnergyPolicyTag add column extra int");
    const auto run = run_easctl({"db", "check", "--json"});
    EXPECT_EQ(run.code, 1);
    const std::string findings = nlohmann::json::parse(run.out).at("findings").dump();
    for (const char* expected :
         {"the columns stand in another order", "TQVN_EnergyCoEfficients.cluster_name",
          "nulls are allowed", "byte for byte", "the primary key is missing",
          "the index TQVN_EnergyPolicyTag_by_tag is missing", "TQVN_EnergyPolicyTag.extra"})
        EXPECT_THAT(findings, HasSubstr(expected));
    EXPECT_EQ(findings.find("storage engine is MyISAM") == std::string::npos, sqlite());
}

TEST_P(Tool, CarriesCoefficientsThroughTheDatabaseToTheBit) {
    const std::string rows =
        "1600000:0.30000000000000004,107.33333333333333,1e-05,0.98999999999999999,-2.25,0.001\n"
        "2000000:0,0,0,0,0,0\n"
        "2400000:1.1000000000000001,-1.9999999999999998,-0.1,1.0000000000000002,1.5,0\n";
    const ScratchFile file("# comment\n" + rows);
    const std::vector<std::string> import{"model", "import", file.path(), "--cluster", "c"};
    auto dry = import;
    dry.emplace_back("--dry-run");
    EXPECT_EQ(run_easctl(dry).code, 0);
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 0);
    for (const char* verdict : {", stored (", "stored already"}) {
        const auto run = run_easctl(import);
        EXPECT_EQ(run.code, 0) << run.err;
        EXPECT_THAT(run.out, HasSubstr(verdict));
    }
    const ScratchFile exported("");
    ASSERT_EQ(run_easctl({"model", "export", "--cluster", "c", "--output", exported.path()}).code,
              0);
    EXPECT_THAT(exported.text(),
                HasSubstr("1600000:0.30000000000000004,107.33333333333333,1e-05,0.99,-2.25,0.001\n"
                          "2000000:0,0,0,0,0,0\n"
                          "2400000:1.1,-1.9999999999999998,-0.1,1.0000000000000002,1.5,0\n"));
    EXPECT_THAT(run_easctl({"model", "list", "--format", "csv"}).out,
                HasSubstr("\nc,2000000,3,1600000,2400000,0\n"));
    EXPECT_EQ(run_easctl({"model", "show", "--cluster", "c"}).code, 0);
    EXPECT_EQ(run_easctl({"model", "remove", "--cluster", "c"}).code, 2);
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 3);
    EXPECT_EQ(run_easctl({"model", "remove", "--cluster", "c", "--yes"}).code, 0);
    EXPECT_EQ(database().rows("TQVN_EnergyCoEfficients"), 0);
}

TEST_P(Tool, LosesNoCoefficientWhenAnImportFails) {
    const ScratchFile first("1600000:0.5,2,1,0.99,0,0\n2000000:0,0,0,0,0,0\n");
    const ScratchFile second("1800000:0.7,2,1,0.99,0,0\n2000000:0,0,0,0,0,0\n");
    ASSERT_EQ(run_easctl({"model", "import", first.path(), "--cluster", "c"}).code, 0);
    const std::string before = names_and_values();
    const auto unasked = run_easctl({"model", "import", second.path(), "--cluster", "c"});
    EXPECT_EQ(unasked.code, 4);
    EXPECT_THAT(unasked.err, HasSubstr("--replace"));
    EXPECT_EQ(names_and_values(), before);

    plain().run(sqlite()
                    ? "create trigger refuse before insert on TQVN_EnergyCoEfficients when "
                      "new.frequency = 2000000 begin select raise(abort, 'refused by test'); end"
                    : "create trigger refuse before insert on TQVN_EnergyCoEfficients for each row "
                      "if new.frequency = 2000000 then signal sqlstate '45000' set message_text = "
                      "'refused by test'; end if");
    const std::vector<std::string> replace{"model",     "import", second.path(),
                                           "--cluster", "c",      "--replace"};
    const auto failed = run_easctl(replace);
    EXPECT_EQ(failed.code, 4);
    EXPECT_THAT(failed.err, HasSubstr("refused by test"));
    EXPECT_EQ(names_and_values(), before);
    plain().run("drop trigger refuse");
    EXPECT_EQ(run_easctl(replace).code, 0);
    EXPECT_NE(names_and_values(), before);
}

/// The statuses of doctor's links, "name=status", one per line.
std::string statuses(const std::vector<std::string>& arguments, int code) {
    std::vector<std::string> all{"doctor", "--json"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const auto run = run_easctl(all);
    EXPECT_EQ(run.code, code) << run.out << run.err;
    std::string text;
    const auto document = nlohmann::json::parse(run.out);
    for (const auto& link : document.at("links"))
        text +=
            link.at("name").get<std::string>() + "=" + link.at("status").get<std::string>() + "\n";
    return text;
}

TEST_P(Tool, DoctorFindsTheBrokenLink) {
    database().seed_coefficients("c", 2000000, 1600000, 400000, 2);
    const ScratchFile thresholds("# only the default\n");
    const std::vector<std::string> all{"--cluster", "c", "--thresholds", thresholds.path()};
    // The scratch file of SQLite is not synchronised, which is worth a warning.
    const std::string schema = sqlite() ? "schema=warning" : "schema=ok";
    EXPECT_THAT(statuses(all, 0),
                HasSubstr("connection=ok\n" + schema +
                          "\nrights of the account=ok\ncoefficients of c=ok\nthresholds"));
    EXPECT_THAT(statuses({"--dsn", "nodsn"}, 1),
                HasSubstr("data source nodsn=missing\nconnection=missing"));
    EXPECT_THAT(statuses({"--cluster", "d"}, 1), HasSubstr("coefficients of d=missing"));
    // The only cluster needs no name; with a choice, what was asked for is not looked at.
    ::setenv("EASCTL_THRESHOLDS", thresholds.path().c_str(), 1);
    EXPECT_THAT(statuses({}, 0), HasSubstr("coefficients of c=ok\nthresholds"));
    database().seed_coefficients("other", 2000000, 1600000, 400000, 2);
    EXPECT_THAT(statuses({}, 1),
                HasSubstr("coefficients=ok\nthresholds " + thresholds.path() + "=skipped"));
    ::unsetenv("EASCTL_THRESHOLDS");
    std::ofstream(database().folder() / "odbcinst.ini", std::ios::app)
        << "\n[ODBC]\nPooling = Yes\n";
    EXPECT_THAT(statuses({}, 0), HasSubstr("ODBC pooling=warning"));
    plain().run("drop table TQVN_EnergyPolicyTag");
    EXPECT_THAT(statuses({}, 1), HasSubstr("schema=wrong\ncoefficients=skipped"));
    std::ofstream(database().folder() / "odbcinst.ini")
        << "[" << (sqlite() ? "SQLite3" : "MariaDB Unicode") << "]\nDriver = /nonexistent.so\n";
    EXPECT_THAT(statuses({}, 1), HasSubstr("=missing\nconnection=missing"));
}

/// Runs the tool as one whom the modes of files bind, root included.
ToolRun run_bound(const std::vector<std::string>& arguments) {
    for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH})
        ::prctl(PR_CAPBSET_DROP, static_cast<unsigned long>(capability), 0, 0,
                0);  // of what is started from here on
    return run_easctl(arguments);
}

struct FileCase {
    const char* name;  // in the scratch folder
    mode_t mode;
    const char* link;
    const char* status;
    const char* remedy;
    int check_code;  // of db check
};

TEST(ToolOnSqlite, TellsWhatIsDeniedFromWhatIsMissing) {
    ScratchDatabase database(Engine::sqlite);
    database.seed_coefficients("c", 2000000, 1600000, 400000, 2);
    database.disconnect();
    for (const FileCase& one : {
             FileCase{"odbc.ini", 0, "data source easdb", "denied", "chmod 640", 4},
             FileCase{"odbcinst.ini", 0, "driver SQLite3", "denied", "chmod 640", 4},
             FileCase{"easdb.sqlite", 0, "connection", "denied", "chown", 4},
             FileCase{"easdb.sqlite", 0444, "rights of the account", "denied", "chown", 0},
             FileCase{"", 0555, "rights of the account", "denied", "chown", 0},
         }) {
        SCOPED_TRACE(std::string(one.name) + ' ' + one.link);
        const std::string path = database.folder() / one.name;
        struct stat before {};
        ASSERT_EQ(::stat(path.c_str(), &before), 0);
        ASSERT_EQ(::chmod(path.c_str(), one.mode), 0);
        const auto run = run_bound({"doctor", "--json"});
        EXPECT_EQ(run_bound({"db", "check"}).code, one.check_code);
        EXPECT_EQ(run_bound({"db", "check", "--grants"}).code, std::max(one.check_code, 1));
        ASSERT_EQ(::chmod(path.c_str(), before.st_mode), 0);
        EXPECT_EQ(run.code, 1);
        bool seen = false;
        const auto document = nlohmann::json::parse(run.out);
        for (const auto& link : document.at("links")) {
            if (link.at("name") != one.link)
                continue;
            seen = true;
            EXPECT_EQ(link.at("status"), one.status);
            EXPECT_THAT(link.at("remedy").get<std::string>(), HasSubstr(one.remedy));
        }
        EXPECT_TRUE(seen) << run.out;
    }
}

TEST(ToolOnSqlite, MakesNoFileWhereThePathIsWrongButToInitialise) {
    ScratchDatabase database(Engine::sqlite);
    database.disconnect();
    const auto path = database.folder() / "easdb.sqlite";
    std::filesystem::remove(path);
    for (const auto& arguments :
         {std::vector<std::string>{"doctor"}, {"db", "check"}, {"model", "list"}}) {
        const auto run = run_easctl(arguments);
        EXPECT_EQ(run.code, arguments[0] == "doctor" ? 1 : 4);
        EXPECT_THAT(run.out + run.err, HasSubstr(path.string() + ": there is no such file"));
        EXPECT_FALSE(std::filesystem::exists(path));
    }
    EXPECT_EQ(run_easctl({"db", "init"}).code, 0);
    std::ofstream(path) << "no database, but a text that is long enough to be looked at as one";
    EXPECT_THAT(run_easctl({"db", "check"}).err, HasSubstr("is damaged"));
}

TEST(ToolOnSqlite, GivesTheTerminalItsEchoBackWhenASignalEndsTheQuestionForAPassword) {
    const ScratchDatabase database(Engine::sqlite);
    int master = -1;
    int slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const eas::UniqueFd keyboard(master);
    const eas::UniqueFd terminal(slave);  // its state stays while it is open
    const auto echoes = [&] {
        termios state{};
        return ::tcgetattr(terminal.get(), &state) == 0 && (state.c_lflag & ECHO) != 0;
    };
    ASSERT_TRUE(echoes());
    const pid_t child = ::fork();
    if (child == 0) {
        ::login_tty(slave);
        ::alarm(30);
        ::execl(EAS_EASCTL, "easctl", "db", "check", "--user", "anna", nullptr);
        ::_exit(127);
    }
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

TEST(ToolOnMariaDb, NamesASessionInWhichNamesWouldMeanSomethingElse) {
    if (const auto why = ScratchDatabase::missing(Engine::mariadb))
        GTEST_SKIP() << *why;
    const ScratchDatabase database(Engine::mariadb,
                                   {{"INITSTMT", "SET SESSION sql_mode='ANSI_QUOTES'"}});
    const auto run = run_easctl({"db", "check"});
    EXPECT_EQ(run.code, 1);
    for (const char* expected : {"ANSI_QUOTES", "backslash", "not strict", "INITSTMT"})
        EXPECT_THAT(run.out, HasSubstr(expected));
}

TEST(ToolOnMariaDb, TellsATableThatTheAccountMayNotSeeFromAMissingOne) {
    if (const auto why = ScratchDatabase::missing(Engine::mariadb))
        GTEST_SKIP() << *why;
    ScratchDatabase database(Engine::mariadb);
    const std::string name = database.schema() + "h";
    const std::string account = "'" + name + "'@'localhost'";
    database.plain().run("create user " + account + " identified by 'h'");
    database.plain().run("grant select on TQVN_EnergyCoEfficients to " + account);
    ::setenv("EASCTL_DB_PASSWORD", "h", 1);
    EXPECT_THAT(statuses({"--user", name}, 1), HasSubstr("connection=ok\nschema=denied"));
    EXPECT_THAT(run_easctl({"db", "check", "--user", name}).out,
                HasSubstr("TQVN_EnergyPolicyTag: error: this account may not read the table"));
    ::unsetenv("EASCTL_DB_PASSWORD");
    database.plain().run("drop user " + account);
}

}  // namespace
