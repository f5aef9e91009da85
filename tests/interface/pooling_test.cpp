// The scheduler functions while the driver manager pools connections ([ODBC] Pooling = Yes): a
// connection is then used by one call after another, from whatever thread.
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "db/base_class/DBConnection.h"
#include "db/base_class/DBLibrary.h"
#include "tests/support/SchedulerCalls.h"

// The driver manager's pool forgets what it holds of connections that the server ended.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "detect_leaks=0";
}

namespace {

using namespace eas::test;

int select_tag(const char* tag) {
    return select("anna", tag, "minimize_energy").status;
}
std::size_t remove_tag(const char* tag) {
    return remove_tags("anna", tag).names.size();
}

class Pooling : public SchedulerTest {
  protected:
    Pooling() { pooled_ = true; }

    void set_up_database() override {
        SchedulerTest::set_up_database();
        ASSERT_EQ(initialize(), EAS_OK);
    }

    /// Ids of the server's connections to the test's database, but for the test's own.
    std::vector<std::string> connections() {
        std::vector<std::string> ids;
        for (const auto& row : plain().run("select id from information_schema.processlist where "
                                           "db = database() and id <> connection_id()"))
            ids.push_back(row.front());
        return ids;
    }
};

// A connection that goes back with an open transaction would miss what others commit (MariaDB) or
// lock them out (SQLite).
TEST_P(Pooling, EachCallSeesWhatOthersCommittedAndLocksNobodyOut) {
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(select_tag("t"), EAS_NO_UNIQUE_TAG);
        EXPECT_EQ(generate("anna", "t"), EAS_OK);
        EXPECT_EQ(generate("anna", "t"), EAS_TAG_EXISTS);
        EXPECT_EQ(select_tag("t"), EAS_OK);
        plain().run("delete from TQVN_EnergyPolicyTag");
        EXPECT_EQ(select_tag("t"), EAS_NO_UNIQUE_TAG);
        EXPECT_EQ(remove_tag("t"), 0);
        EXPECT_EQ(initialize(), EAS_OK);
    }
    if (GetParam() == Engine::mariadb) {
        EXPECT_EQ(connections().size(), 1U) << "one connection served all calls";
    }
}

// Only the server takes several writers at a time.
TEST_P(Pooling, ThreadsShareTheConnections) {
    ASSERT_EQ(generate("anna", "shared"), EAS_OK);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, own = "t" + std::to_string(i)] {
            for (int k = 0; k < 5; ++k) {
                failed += select_tag("shared") != EAS_OK;
                if (GetParam() == Engine::mariadb) {
                    failed += never([&] { return generate("anna", own) == EAS_OK; });
                    failed += never([&] { return remove_tag(own.c_str()) == 1; });
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failed, 0);
    plain().run("delete from TQVN_EnergyPolicyTag");
    EXPECT_EQ(generate("anna", "t"), EAS_OK) << "no call left a lock behind";
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
        EXPECT_EQ(generate("anna", tag), code);
        odbc = real;
        EXPECT_EQ(remove_tag("other"), 1);
        EXPECT_EQ(tag_rows(), 0) << tag;
    };
    ASSERT_EQ(generate("anna", "other"), EAS_OK);
    odbc.SQLBindParameter = bind_or_throw;
    expect_nothing_of("half", EAS_STORE_FAILED);
    EXPECT_LT(binds_left, 0);
    ASSERT_EQ(generate("anna", "other"), EAS_OK);
    odbc.SQLEndTran = refuse_commit;
    expect_nothing_of("refused", EAS_OK);  // the outcome of the commit is not reported
}

class ServerPooling : public Pooling {};

// What a server's restart, its wait_timeout or an administrator's KILL does.
TEST_P(ServerPooling, AConnectionThatTheServerEndedIsReplaced) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(generate("anna", "t"), EAS_OK);
        ASSERT_EQ(connections().size(), 1U);
        for (const std::string& id : connections())
            plain().run("kill " + id);
        for (int i = 0; i < 1000 && !connections().empty(); ++i)
            ::usleep(10000);
        EXPECT_EQ(select_tag("t"), EAS_OK);
        EXPECT_EQ(remove_tag("t"), 1);
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
    for (const char* unset : {"", static_cast<const char*>(nullptr)}) {
        DBConnection::setDBinfo("site", unset, unset, nullptr);
        EXPECT_EQ(remove_tags("anna", nullptr).status, EAS_OK);
        EXPECT_EQ(plain().number("select count(*) from information_schema.processlist "
                                 "where user = 'site'"),
                  1);
        DBConnection::setDbUser(nullptr);
        DBConnection::setDbPassword(nullptr);
    }
    plain().run("drop user site@localhost");
}

INSTANTIATE_TEST_SUITE_P(On, Pooling, both_engines(), engine_suffix);
INSTANTIATE_TEST_SUITE_P(On, ServerPooling, testing::Values(Engine::mariadb), engine_suffix);

}  // namespace
