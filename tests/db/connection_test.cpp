// A connection against a driver manager that refuses, delays and misreports; the sleeps between two
// attempts are counted, not waited. Whatever happens, no handle may be left.
#include "db/base_class/DBConnection.h"

#include <pthread.h>
#include <unistd.h>

#include <thread>

#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/OdbcHandle.h"
#include "gmock/gmock.h"
#include "tests/support/ScriptedDriverManager/ScriptedDriverManager.h"
#include "tests/support/TraceCapture.h"

namespace {

int sleeps = 0;
std::vector<unsigned> users_set;
int users_unset = 0;

int set_user(unsigned uid) {
    users_set.push_back(uid);
    return 0;
}

int unset_user() {
    ++users_unset;
    return 0;
}

}  // namespace

// In place of the system's: a cancellation point that takes no time.
extern "C" unsigned sleep(unsigned seconds) {
    sleeps += static_cast<int>(seconds);
    pthread_testcancel();
    return 0;
}

namespace {

using eas::test::ScriptedDriverManager;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class Connection : public testing::Test {
  protected:
    void SetUp() override {
        odbc = ScriptedDriverManager::load(EAS_SCRIPTED_ODBC);
        ASSERT_NE(odbc, nullptr);
        ASSERT_TRUE(DBLibrary::init(EAS_SCRIPTED_ODBC));
        ::unsetenv("ABORT_ON_DB_FAILED");
    }
    void TearDown() override {
        con.reset();
        EXPECT_EQ(odbc->live(), 0);
        EXPECT_TRUE(odbc->script_done());
        DBLibrary::release();
    }
    int connect() { return con->connect("easdb", nullptr, nullptr, nullptr, set_user, unset_user); }

    ScriptedDriverManager* odbc = nullptr;
    eas::test::TraceCapture log;
    std::unique_ptr<DBConnection> con = std::make_unique<DBConnection>(nullptr, false, 0);
};

TEST_F(Connection, ConnectsOnceAndDisconnects) {
    EXPECT_EQ(con->getStatus(), -1);
    EXPECT_EQ(con->disconnect(), -1);
    EXPECT_EQ(connect(), 0);
    EXPECT_EQ(connect(), 0);
    EXPECT_THAT(users_set, ElementsAre(::getuid()));
    EXPECT_EQ(users_unset, 1);
    EXPECT_EQ(con->disconnect(), 0);
    con.reset();
    EXPECT_THAT(odbc->calls(),
                ElementsAre("SQLAllocHandle(env)", "SQLSetEnvAttr(3)", "SQLAllocHandle(dbc)",
                            "SQLConnect(easdb, , )", "SQLDisconnect()", "SQLFreeHandle(dbc)",
                            "SQLFreeHandle(env)"));
    EXPECT_EQ(log.text(), "Connected to the database: easdb\n\nDisconnected from the database\n\n");
}

// Each entry point on the way refused once: the documented result, nothing left but the
// environment, and the object connects the next time.
TEST_F(Connection, RefusalIsReportedAtOnceAndLeavesTheObjectUsable) {
    struct Row {
        const char* entry_point;
        SQLRETURN answer;
        int expected;
        bool user_switched;
    };
    const std::vector<Row> rows{
        {"SQLSetEnvAttr", SQL_ERROR, -1, false},
        {"SQLAllocHandle", SQL_ERROR, -1, false},
        {"SQLConnect", SQL_ERROR, -1, true},
        {"SQLConnect", SQL_INVALID_HANDLE, -2, true},
        {"SQLConnect", 42, 42, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.entry_point);
        DBConnection refused(nullptr, false, 0);
        odbc->answer(row.entry_point, {row.answer});
        const std::size_t switched = users_set.size();
        EXPECT_EQ(refused.connect("db", nullptr, nullptr, nullptr, set_user, unset_user),
                  row.expected);
        EXPECT_EQ(users_set.size() - switched, row.user_switched ? 1 : 0);
        EXPECT_EQ(users_unset, 0) << "a refused caller switches back himself";
        EXPECT_EQ(odbc->live(SQL_HANDLE_DBC), 0);
        EXPECT_EQ(sleeps, 0);
        EXPECT_EQ(refused.connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(refused.disconnect(), 0);
    }
}

TEST_F(Connection, EnvironmentThatCannotBeMadeIsNotHandedOn) {
    odbc->answer("SQLAllocHandle", {SQL_ERROR});
    EXPECT_EQ(con->setEnvHandle(), eas::no_handle());
    EXPECT_EQ(log.text(), "Error occured calling SQLAllocHandle.  rc=-1\n\n");
    odbc->always("SQLAllocHandle", SQL_ERROR);
    EXPECT_EQ(connect(), -1);
    con->setEnvHandle(nullptr);
    EXPECT_EQ(connect(), -1);
    EXPECT_THAT(odbc->calls(), Not(testing::Contains("SQLAllocHandle(dbc)")));
}

TEST_F(Connection, RetriesOnlyWhileTheDriverAsksForPatience) {
    odbc->answer("SQLConnect",
                 {SQL_STILL_EXECUTING, SQL_NEED_DATA, SQL_NO_DATA, SQL_SUCCESS_WITH_INFO});
    EXPECT_EQ(connect(), 0);
    EXPECT_EQ(con->getStatus(), 0);
    EXPECT_EQ(sleeps, 3);
    EXPECT_EQ(users_unset, 1);
    const std::string failed = "Error occured while connecting to the database (SQLConnect). rc=";
    std::string expected;
    for (const char* code : {"2", "99", "100"})
        expected +=
            failed + code + "\n\n" + failed + code + "\n\nRetrying database connections\n\n";
    EXPECT_EQ(log.text(), expected + failed + "1\n\nConnected to the database: easdb\n\n");
    EXPECT_EQ(con->disconnect(), 0);
}

TEST_F(Connection, GivesUpAfterTwentyAttemptsWhenToldNotToAbort) {
    ::setenv("ABORT_ON_DB_FAILED", "no", 1);
    odbc->always("SQLConnect", SQL_STILL_EXECUTING);
    int state = PTHREAD_CANCEL_DISABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    EXPECT_EQ(connect(), -1);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE) << "the caller's state is put back";
    EXPECT_EQ(odbc->count("SQLConnect"), 20);
    EXPECT_EQ(sleeps, 19);
    EXPECT_EQ(odbc->live(SQL_HANDLE_DBC), 0);
    EXPECT_THAT(log.text(), testing::EndsWith("\n\nUnable to connect to the database, returning "
                                              "CONN_NOT_CONNECTED\n\n"));
}

TEST_F(Connection, AbortsAfterTwentyAttemptsByDefault) {
    odbc->always("SQLConnect", SQL_NO_DATA);
    EXPECT_EXIT(
        {
            dbtrace_config(STDERR_FILENO);
            connect();
        },
        testing::KilledBySignal(SIGABRT), "Unable to connect to the database, aborting...");
}

TEST_F(Connection, CancelledThreadLeavesNoHandleAndSwitchesTheUserBack) {
    odbc->always("SQLConnect", SQL_STILL_EXECUTING);
    odbc->during("SQLConnect", [this] {
        if (odbc->count("SQLConnect") == 3)
            pthread_cancel(pthread_self());
    });
    bool returned = false;
    std::thread thread([&] {
        connect();
        returned = true;
    });
    thread.join();
    EXPECT_FALSE(returned);
    EXPECT_EQ(odbc->count("SQLConnect"), 3);
    EXPECT_EQ(odbc->live(SQL_HANDLE_DBC), 0);
    EXPECT_EQ(users_unset, 1);
    EXPECT_NE(con->getStatus(), 0);
}

TEST_F(Connection, UserOfTheSchemaIsSwitchedTo) {
    EXPECT_EQ(con->connect("db", "root", "pw", "root", set_user, unset_user), 0);
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_EQ(con->connect("db", "no such account", "pw", "s", set_user, nullptr), 0);
    EXPECT_THAT(users_set, ElementsAre(0U, ::getuid()));
    EXPECT_EQ(users_unset, 1);
    EXPECT_EQ(con->disconnect(), 0);
}

TEST_F(Connection, SchemaIsSetWhenItDiffersFromTheUser) {
    EXPECT_EQ(con->connect("db", "anna", "pw", "anna", nullptr, nullptr), 0);
    EXPECT_EQ(odbc->count("SQLExecDirect"), 0);
    EXPECT_EQ(con->disconnect(), 0);
    odbc->answer("SQLExecDirect", {SQL_ERROR, SQL_SUCCESS});  // the first result does not count
    EXPECT_EQ(con->connect(nullptr, nullptr, nullptr, "ANNA", nullptr, nullptr), 0);
    EXPECT_THAT(odbc->calls(),
                testing::IsSupersetOf({"SQLExecDirect(set schema ANNA)",
                                       "SQLExecDirect(set path = current path,  ANNA)"}));
    EXPECT_THAT(log.text(),
                testing::EndsWith("Setting Schema: set schema ANNA\n\n"
                                  "Setting Schema Path: set path = current path,  ANNA\n\n"));
    EXPECT_EQ(odbc->live(SQL_HANDLE_STMT), 0);
    EXPECT_EQ(con->setDbSchema(nullptr), 0);
    EXPECT_THAT(odbc->calls(), testing::Contains("SQLExecDirect(set schema (nil))"));
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_EQ(con->setDbSchema("later"), 0);
}

TEST_F(Connection, RefusedSchemaIsRolledBackAndDisconnected) {
    odbc->answer("SQLExecDirect", {SQL_SUCCESS, SQL_ERROR});
    EXPECT_EQ(con->connect("db", "anna", "pw", "other", nullptr, nullptr), -1);
    EXPECT_THAT(odbc->calls(),
                testing::IsSupersetOf({"SQLFreeStmt(2)", "SQLFreeStmt(3)", "SQLFreeStmt(0)",
                                       "SQLEndTran(rollback)", "SQLDisconnect()"}));
    EXPECT_EQ(odbc->live(SQL_HANDLE_DBC), 0);
}

TEST_F(Connection, OpenTransactionDoesNotKeepTheConnection) {
    ASSERT_EQ(connect(), 0);
    odbc->refuse_disconnect_in_transaction();
    EXPECT_EQ(con->setAutoCommit(false), 0);
    EXPECT_EQ(con->setDbSchema("s"), 0);
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_EQ(odbc->count("SQLDisconnect"), 2);
}

// One refusal anywhere on the way out: the documented result, and nothing left.
TEST_F(Connection, RefusedDisconnectLeavesNoHandle) {
    struct Row {
        const char* entry_point;
        std::vector<SQLRETURN> answers;
        int expected;
    };
    const std::vector<Row> rows{
        {"SQLDisconnect", {SQL_ERROR}, 0},
        {"SQLDisconnect", {SQL_STILL_EXECUTING}, -1},  // the free is then refused at first
        {"SQLDisconnect", {SQL_ERROR, SQL_INVALID_HANDLE}, 0},
        {"SQLDisconnect", {SQL_ERROR, SQL_ERROR, SQL_INVALID_HANDLE}, -2},
        {"SQLFreeHandle", {SQL_ERROR}, -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.entry_point);
        ASSERT_EQ(connect(), 0);
        for (const SQLRETURN answer : row.answers)
            odbc->answer(row.entry_point, {answer});
        EXPECT_EQ(con->disconnect(), row.expected);
        EXPECT_EQ(con->getStatus(), -1);
        EXPECT_EQ(odbc->live(SQL_HANDLE_DBC), 0);
        EXPECT_TRUE(odbc->script_done());
    }
}

TEST_F(Connection, AutocommitIsAskedOnceAndSetWhenNeeded) {
    ASSERT_EQ(connect(), 0);
    EXPECT_TRUE(con->isAutoCommit());
    EXPECT_EQ(con->setAutoCommit(true), 0);
    EXPECT_EQ(odbc->count("SQLSetConnectAttr"), 0);
    EXPECT_EQ(con->setAutoCommit(false), 0);
    EXPECT_EQ(con->setAutoCommit(false), 0);
    EXPECT_EQ(odbc->count("SQLSetConnectAttr"), 2);
    EXPECT_FALSE(con->isAutoCommit());
    EXPECT_EQ(odbc->count("SQLGetConnectAttr"), 1);
    odbc->answer("SQLSetConnectAttr", {SQL_ERROR});
    EXPECT_EQ(con->setAutoCommit(true), -1);
    EXPECT_FALSE(con->isAutoCommit()) << "asked again after a failure";
    EXPECT_EQ(con->disconnect(), 0);
    odbc->answer("SQLGetConnectAttr", {SQL_ERROR});
    ASSERT_EQ(connect(), 0);
    EXPECT_FALSE(con->isAutoCommit());
    EXPECT_TRUE(con->isAutoCommit()) << "a new connection starts with autocommit";
    EXPECT_EQ(con->disconnect(), 0);
}

TEST_F(Connection, CommitAndRollbackSayWhatHappened) {
    ASSERT_EQ(connect(), 0);
    const std::size_t before = log.text().size();
    odbc->answer("SQLEndTran", {SQL_SUCCESS, SQL_ERROR, SQL_SUCCESS, SQL_INVALID_HANDLE});
    EXPECT_EQ(con->commit(), 0);
    EXPECT_EQ(con->commit(), -1);
    EXPECT_EQ(con->rollback(), 0);
    EXPECT_EQ(con->rollback(), 1);
    EXPECT_EQ(odbc->count("SQLGetDiagRec"), 0) << "a failed commit is not looked into";
    EXPECT_EQ(log.text().substr(before),
              "Transaction committed\n\n"
              "Error while attempting to commit the transaction, rc=-1\n\n"
              "Rolling back the transaction (DBConnection)\n\n"
              "Transaction rolled back (DBConnection)\n\n"
              "Rolling back the transaction (DBConnection)\n\n"
              "SQL_INVALID_HANDLE (-2)\n\n"
              "Error occured while rolling back transaction. (DBConnection) rc=1\n\n");
    EXPECT_EQ(con->disconnect(), 0);
}

TEST_F(Connection, SettingsAreReplacedOneByOne) {
    DBConnection::setDBinfo("db", "user", "pwd", nullptr);
    DBConnection::setDBinfo(nullptr, nullptr, "other", nullptr);
    EXPECT_EQ(con->connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(con->disconnect(), 0);
    DBConnection::setDbUser(nullptr);
    DBConnection::setDbPassword("");
    DBConnection::setDbName("db2");
    EXPECT_EQ(con->connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_THAT(odbc->calls(),
                testing::IsSupersetOf({"SQLConnect(db, user, other)", "SQLConnect(db2, , )"}));
}

TEST_F(Connection, CallersEnvironmentStaysTheCallers) {
    const SQLHANDLE env = DBConnection::createEnvHandle();
    con->setEnvHandle();
    con->setEnvHandle(env);
    EXPECT_EQ(odbc->live(SQL_HANDLE_ENV), 1);
    EXPECT_EQ(connect(), 0);
    EXPECT_EQ(con->disconnect(), 0);
    con.reset();
    EXPECT_EQ(odbc->live(SQL_HANDLE_ENV), 1);
    EXPECT_EQ(DBLibrary::get()->SQLFreeHandle(SQL_HANDLE_ENV, env), SQL_SUCCESS);
}

TEST_F(Connection, ReturnCodesAreAnsweredByTheTable) {
    struct Row {
        SQLRETURN rc;
        int answer;
        const char* text;
    };
    const std::vector<Row> rows{
        {0, 0, ""},
        {1, 0, ""},
        {2, 0, ""},
        {99, 0, ""},
        {100, 0, ""},
        {-2, 1, "SQL_INVALID_HANDLE (-2)\n\n"},
        {-1, 2, "SQL_ERROR (-1)\n\n"},
        {101, 3, "Received unexpected error code (101)\n\n"},
    };
    for (const Row& row : rows) {
        const std::size_t before = log.text().size();
        EXPECT_EQ(HandleInfoPrint(SQL_HANDLE_DBC, nullptr, row.rc, 1, "file", true), row.answer);
        EXPECT_EQ(log.text().substr(before), row.text);
    }
}

TEST_F(Connection, DiagnosticsAreReadToTheEndAndShownOnRequest) {
    odbc->diagnostics({{"25000", 7, "busy"}, {"HY000", 0, "odd"}});
    HandleDiagnosticsPrint(SQL_HANDLE_DBC, nullptr, false);
    EXPECT_EQ(odbc->count("SQLGetDiagRec"), 3);
    EXPECT_EQ(log.text(), "");
    HandleDiagnosticsPrint(SQL_HANDLE_DBC, nullptr, true);
    EXPECT_EQ(log.text(),
              "busy (SQL State=25000, Native Error Code=7)\n\n"
              "odd (SQL State=HY000) \n\n");
}

}  // namespace
