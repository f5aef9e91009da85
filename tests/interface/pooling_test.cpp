// The scheduler functions while the driver manager pools connections ([ODBC] Pooling = Yes): a
// connection is then used by one call after another, from whatever thread.
#include <array>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "db/base_class/DBConnection.h"
#include "db/base_class/DBLibrary.h"
#include "gtest/gtest.h"
#include "interface/interface.h"
#include "tests/support/ScratchDatabase.h"

// The driver manager's pool forgets what it holds of connections that the server ended.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "detect_leaks=0";
}

namespace {

using eas::test::both_engines;
using eas::test::Engine;
using eas::test::engine_suffix;

constexpr int default_frequency = 2000000;

class Pooling : public eas::test::DatabaseTest {
  protected:
    Pooling() { pooled_ = true; }

    void SetUp() override {
        DatabaseTest::SetUp();
        if (IsSkipped())
            return;
        database().seed_coefficients("c1", default_frequency, 1600000, 200000, 5);
        thresholds_ = (database().folder() / "thresholds").string();
        std::ofstream(thresholds_)
            << "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
               "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2400MHz -15\nEnd Min_Time\n";
        ASSERT_EQ(initialize(), EAS_OK);
    }

    int initialize() { return eas_initialize(text("c1"), default_frequency, thresholds_.data()); }
    static char* text(const std::string& s) { return const_cast<char*>(s.c_str()); }

    static int generate(const std::string& tag) {
        std::array<double, 3> counters{2e14, 1e14, 5e12};
        return eas_generate_tag(text("c1"), default_frequency, text("anna"), text(tag),
                                counters.data(), text("1.0"), 1000, 300.0);
    }
    static int select(const std::string& tag) {
        int frequency = 0;
        double change = 0;
        return eas_auto_select_frequency(text("c1"), default_frequency, text("anna"), text(tag),
                                         text("minimize_energy"), &frequency, &change);
    }
    static int remove(const std::string& tag) {
        int count = 0;
        char** users = nullptr;
        char** names = nullptr;
        const int status = eas_remove_tag(text("c1"), default_frequency, text("anna"), text(tag),
                                          &count, &users, &names);
        for (int i = 0; i < count; ++i) {
            std::free(users[i]);
            std::free(names[i]);
        }
        std::free(users);
        std::free(names);
        return status != EAS_OK ? status : count;
    }

    /// Ids of the server's connections to the test's database, but for the test's own.
    std::vector<std::string> connections() {
        std::vector<std::string> ids;
        for (const auto& row : plain().run("select id from information_schema.processlist where "
                                           "db = database() and id <> connection_id()"))
            ids.push_back(row.front());
        return ids;
    }

    std::string thresholds_;
};

// A connection that goes back with an open transaction would miss what others commit (MariaDB) or
// lock them out (SQLite).
TEST_P(Pooling, EachCallSeesWhatOthersCommittedAndLocksNobodyOut) {
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(select("t"), EAS_NO_UNIQUE_TAG);
        EXPECT_EQ(generate("t"), EAS_OK);
        EXPECT_EQ(generate("t"), EAS_TAG_EXISTS);
        EXPECT_EQ(select("t"), EAS_OK);
        plain().run("delete from TQVN_EnergyPolicyTag");
        EXPECT_EQ(select("t"), EAS_NO_UNIQUE_TAG);
        EXPECT_EQ(remove("t"), 0);
        EXPECT_EQ(initialize(), EAS_OK);
    }
    if (GetParam() == Engine::mariadb) {
        EXPECT_EQ(connections().size(), 1U) << "one connection served all calls";
    }
}

// Only the server takes several writers at a time.
TEST_P(Pooling, ThreadsShareTheConnections) {
    ASSERT_EQ(generate("shared"), EAS_OK);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, own = "t" + std::to_string(i)] {
            for (int k = 0; k < 5; ++k) {
                failed += select("shared") != EAS_OK;
                if (GetParam() == Engine::mariadb)
                    failed += generate(own) != EAS_OK || remove(own) != 1;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failed, 0);
    plain().run("delete from TQVN_EnergyPolicyTag");
    EXPECT_EQ(generate("t"), EAS_OK) << "no call left a lock behind";
}

OdbcEntryPoints real;
int binds_left;

/// The memory runs out in a tag's second row.
SQLRETURN SQL_API bind_or_throw(SQLHSTMT statement, SQLUSMALLINT position, SQLSMALLINT direction,
                                SQLSMALLINT type, SQLSMALLINT sql_type, SQLULEN column_size,
                                SQLSMALLINT digits, SQLPOINTER value, SQLLEN size,
                                SQLLEN* indicator) {
    if (--binds_left < 0)
        throw std::bad_alloc();
    return real.SQLBindParameter(statement, position, direction, type, sql_type, column_size,
                                 digits, value, size, indicator);
}

SQLRETURN SQL_API refuse_commit(SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT completion) {
    return completion == SQL_COMMIT ? SQLRETURN{SQL_ERROR}
                                    : real.SQLEndTran(type, handle, completion);
}

TEST_P(Pooling, WhatWasCutShortIsNotCommittedByALaterCall) {
    OdbcEntryPoints& odbc = *DBLibrary::get();
    real = odbc;
    binds_left = 15;
    const auto expect_nothing_of = [&](const char* tag, int code) {
        EXPECT_EQ(generate(tag), code);
        odbc = real;
        EXPECT_EQ(remove("other"), 1);
        EXPECT_EQ(database().rows("TQVN_EnergyPolicyTag"), 0) << tag;
    };
    ASSERT_EQ(generate("other"), EAS_OK);
    odbc.SQLBindParameter = bind_or_throw;
    expect_nothing_of("half", EAS_STORE_FAILED);
    EXPECT_LT(binds_left, 0);
    ASSERT_EQ(generate("other"), EAS_OK);
    odbc.SQLEndTran = refuse_commit;
    expect_nothing_of("refused", EAS_OK);  // the outcome of the commit is not reported
}

class ServerPooling : public Pooling {};

// What a server's restart, its wait_timeout or an administrator's KILL does.
TEST_P(ServerPooling, AConnectionThatTheServerEndedIsReplaced) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(generate("t"), EAS_OK);
        ASSERT_EQ(connections().size(), 1U);
        for (const std::string& id : connections())
            plain().run("kill " + id);
        EXPECT_EQ(select("t"), EAS_OK);
        EXPECT_EQ(remove("t"), 1);
    }
}

// The library hands over no user and no password: those of the data source must apply.
TEST_P(ServerPooling, TheAccountIsThatOfTheDataSource) {
    plain().run("create or replace user site@localhost identified by 'secret'");
    plain().run("grant all on *.* to site@localhost");
    std::ofstream(database().folder() / "odbc.ini", std::ios::app)
        << "\n[site]\nDriver = MariaDB Unicode\nUID = site\nPWD = secret\nDATABASE = "
        << database().schema() << "\nSOCKET = " << plain().run("select @@socket").front().front()
        << "\n";
    DBConnection::setDBinfo("site", nullptr, nullptr, nullptr);
    EXPECT_EQ(generate("t"), EAS_OK);
    EXPECT_EQ(plain().number("select count(*) from information_schema.processlist "
                             "where user = 'site'"),
              1);
    plain().run("drop user site@localhost");
}

INSTANTIATE_TEST_SUITE_P(On, Pooling, both_engines(), engine_suffix);
INSTANTIATE_TEST_SUITE_P(On, ServerPooling, testing::Values(Engine::mariadb), engine_suffix);

}  // namespace
