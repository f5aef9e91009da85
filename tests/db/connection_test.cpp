// A connection that is refused, delayed and misreported to; the sleeps between two attempts are
// counted, not waited.
#include "db/base_class/DBConnection.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <tuple>

#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/OdbcHandle.h"
#include "tests/db/OdbcTest.h"

namespace {

int sleeps = 0;
int cancelled_at = -1;  // in this sleep the thread is cancelled
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
    if (sleeps == cancelled_at)
        pthread_cancel(pthread_self());
    pthread_testcancel();
    return 0;
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Connection : public eas::test::OdbcTest {
  protected:
    void TearDown() override {
        con.reset();
        OdbcTest::TearDown();
    }
    int connect() { return con->connect("easdb", nullptr, nullptr, nullptr, set_user, unset_user); }
    SQLRETURN run(std::string sql) {
        eas::OdbcHandle statement(SQL_HANDLE_STMT);
        statement.allocate(con->getConnHandle());
        return DBLibrary::get()->SQLExecDirect(statement.get(),
                                               reinterpret_cast<SQLCHAR*>(sql.data()), SQL_NTS);
    }

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
    EXPECT_THAT(calls(), ElementsAre("SQLAllocHandle()", "SQLSetEnvAttr()", "SQLAllocHandle()",
                                     "SQLConnect(easdb, , )", "SQLDisconnect()", "SQLFreeHandle()",
                                     "SQLFreeHandle()"));
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
    for (const Row& row :
         {Row{"SQLSetEnvAttr", SQL_ERROR, -1, false}, Row{"SQLAllocHandle", SQL_ERROR, -1, false},
          Row{"SQLConnect", SQL_ERROR, -1, true}, Row{"SQLConnect", SQL_INVALID_HANDLE, -2, true},
          Row{"SQLConnect", 42, 42, true}}) {
        SCOPED_TRACE(row.entry_point);
        DBConnection refused(nullptr, false, 0);
        answer(row.entry_point, {row.answer});
        const std::size_t switched = users_set.size();
        EXPECT_EQ(refused.connect("easdb", nullptr, nullptr, nullptr, set_user, unset_user),
                  row.expected);
        EXPECT_EQ(users_set.size() - switched, row.user_switched ? 1 : 0);
        EXPECT_EQ(users_unset, 0) << "a refused caller switches back himself";
        EXPECT_LE(odbc.live_handles(), 1);
        EXPECT_EQ(sleeps, 0);
        EXPECT_EQ(refused.connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(refused.disconnect(), 0);
    }
}

TEST_F(Connection, EnvironmentThatCannotBeMadeIsNotHandedOn) {
    answer("SQLAllocHandle", {SQL_ERROR, SQL_ERROR});
    EXPECT_EQ(con->setEnvHandle(), eas::no_handle());
    EXPECT_EQ(log.text(), "Error occured calling SQLAllocHandle.  rc=-1\n\n");
    EXPECT_EQ(connect(), -1);
    con->setEnvHandle(nullptr);
    EXPECT_EQ(connect(), -1);
    EXPECT_EQ(count("SQLAllocHandle"), 2) << "no connection without an environment";
}

TEST_F(Connection, RetriesOnlyWhileTheDriverAsksForPatience) {
    answer("SQLConnect", {SQL_STILL_EXECUTING, SQL_NEED_DATA, SQL_NO_DATA, SQL_SUCCESS_WITH_INFO});
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

TEST_F(Connection, TheTwentiethAttemptIsTheLastOneOfTheProcessUnlessItSaysNo) {
    ::setenv("ABORT_ON_DB_FAILED", "no", 1);
    answer("SQLConnect", std::vector<SQLRETURN>(20, SQL_STILL_EXECUTING));
    int state = PTHREAD_CANCEL_DISABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    EXPECT_EQ(connect(), -1);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE) << "the caller's state is put back";
    EXPECT_EQ(sleeps, 19);
    EXPECT_EQ(odbc.live_handles(), 1) << "the environment";
    EXPECT_THAT(log.text(), testing::EndsWith("\n\nUnable to connect to the database, returning "
                                              "CONN_NOT_CONNECTED\n\n"));
    ::setenv("ABORT_ON_DB_FAILED", "MAYBE", 1);
    answer("SQLConnect", std::vector<SQLRETURN>(20, SQL_NO_DATA));
    const auto in_vain = [this] {
        dbtrace_config(STDERR_FILENO);
        connect();
    };
    EXPECT_EXIT(in_vain(), testing::KilledBySignal(SIGABRT),
                "Unable to connect to the database, aborting...");
    answer("", {});
}

TEST_F(Connection, CancelledThreadLeavesNoHandleAndSwitchesTheUserBack) {
    answer("SQLConnect", {SQL_STILL_EXECUTING, SQL_STILL_EXECUTING});
    cancelled_at = 2;
    bool returned = false;
    std::thread thread([&] {
        connect();
        returned = true;
    });
    thread.join();
    EXPECT_FALSE(returned);
    EXPECT_EQ(odbc.live_handles(), 1) << "the environment";
    EXPECT_EQ(users_unset, 1);
    EXPECT_NE(con->getStatus(), 0);
}

TEST_F(Connection, UserOfTheSchemaIsSwitchedTo) {
    EXPECT_EQ(con->connect("easdb", "daemon", "pw", nullptr, set_user, unset_user), 0);
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_EQ(con->connect("easdb", "daemon", "pw", "daemon", set_user, nullptr), 0);
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_NE(con->connect("easdb", "no such account", "pw", "s", set_user, nullptr), 0);
    EXPECT_THAT(users_set, ElementsAre(::getuid(), 1U, ::getuid()));
    EXPECT_EQ(users_unset, 1);
}

// SQLite knows no schema: it refuses both statements.
TEST_F(Connection, SchemaIsSetWhenItDiffersFromTheUser) {
    EXPECT_EQ(con->connect("easdb", "anna", "pw", "anna", nullptr, nullptr), 0);
    EXPECT_EQ(count("SQLExecDirect"), 0);
    EXPECT_EQ(con->disconnect(), 0);
    odbc.inject({{"SQLExecDirect", 2, SQL_SUCCESS, false, true}});  // the first does not count
    EXPECT_EQ(con->connect(nullptr, nullptr, nullptr, "ANNA", nullptr, nullptr), 0);
    EXPECT_THAT(calls(), testing::IsSupersetOf({"SQLExecDirect(set schema ANNA)",
                                                "SQLExecDirect(set path = current path,  ANNA)"}));
    EXPECT_THAT(log.text(),
                testing::EndsWith("Setting Schema: set schema ANNA\n\n"
                                  "Setting Schema Path: set path = current path,  ANNA\n\n"));
    EXPECT_EQ(odbc.live_handles(), 2) << "environment and connection";
    EXPECT_EQ(con->setDbSchema(nullptr), 0);
    EXPECT_THAT(calls(), testing::Contains("SQLExecDirect(set schema (nil))"));
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_EQ(con->setDbSchema("later"), 0);

    answer("", {});
    EXPECT_EQ(con->connect("easdb", "anna", "pw", "other", nullptr, nullptr), -1);
    EXPECT_THAT(calls(), testing::IsSupersetOf({"SQLEndTran(rollback)", "SQLDisconnect()"}));
    EXPECT_EQ(count("SQLFreeStmt"), 3);
    EXPECT_EQ(odbc.live_handles(), 1) << "the environment";
}

// SQLite's driver refuses to disconnect while a transaction is open.
TEST_F(Connection, OpenTransactionIsRolledBackAndDoesNotKeepTheConnection) {
    for (int round = 0; round < 3; ++round) {
        answer("", {});
        ASSERT_EQ(connect(), 0);
        EXPECT_TRUE(con->isAutoCommit());
        EXPECT_EQ(run("create table if not exists t (a integer)"), SQL_SUCCESS);
        EXPECT_EQ(con->setAutoCommit(false), 0);
        EXPECT_EQ(run("insert into t values (1)"), SQL_SUCCESS);
        EXPECT_EQ(con->disconnect(), 0);
        EXPECT_EQ(count("SQLDisconnect"), 2);
        EXPECT_THAT(log.text(), HasSubstr("SQL State=25000"));
    }
    EXPECT_EQ(database.rows("t"), 0);
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
        answer(row.entry_point, row.answers);
        EXPECT_EQ(con->disconnect(), row.expected);
        EXPECT_EQ(con->getStatus(), -1);
        EXPECT_EQ(odbc.live_handles(), 1) << "the environment";
        EXPECT_TRUE(odbc.end_faults());
    }
}

TEST_F(Connection, AutocommitIsAskedOnceAndSetWhenNeeded) {
    ASSERT_EQ(connect(), 0);
    EXPECT_TRUE(con->isAutoCommit());
    EXPECT_EQ(con->setAutoCommit(true), 0);
    EXPECT_EQ(count("SQLSetConnectAttr"), 0);
    EXPECT_EQ(con->setAutoCommit(false), 0);
    EXPECT_EQ(con->setAutoCommit(false), 0);
    EXPECT_EQ(count("SQLSetConnectAttr"), 2);
    EXPECT_FALSE(con->isAutoCommit());
    EXPECT_EQ(count("SQLGetConnectAttr"), 1);
    answer("SQLSetConnectAttr", {SQL_ERROR});
    EXPECT_EQ(con->setAutoCommit(true), -1);
    EXPECT_TRUE(con->isAutoCommit()) << "what was asked for counts";
    EXPECT_EQ(count("SQLGetConnectAttr"), 0);
    EXPECT_EQ(con->disconnect(), 0);
    answer("SQLGetConnectAttr", {SQL_ERROR});
    ASSERT_EQ(connect(), 0);
    EXPECT_FALSE(con->isAutoCommit());
    EXPECT_TRUE(con->isAutoCommit()) << "a new connection starts with autocommit";
    EXPECT_EQ(con->disconnect(), 0);
}

TEST_F(Connection, CommitAndRollbackSayWhatHappened) {
    ASSERT_EQ(connect(), 0);
    const std::size_t before = log.text().size();
    answer("SQLEndTran", {SQL_SUCCESS, SQL_ERROR, SQL_SUCCESS, SQL_INVALID_HANDLE});
    EXPECT_EQ(con->commit(), 0);
    EXPECT_EQ(con->commit(), -1);
    EXPECT_EQ(con->rollback(), 0);
    EXPECT_EQ(con->rollback(), 1);
    EXPECT_THAT(calls(), ElementsAre("SQLEndTran(commit)", "SQLEndTran(commit)",
                                     "SQLEndTran(rollback)", "SQLEndTran(rollback)"))
        << "a failed commit is not looked into";
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
    DBConnection::setDBinfo("nosuch", "user", "pwd", nullptr);
    DBConnection::setDBinfo(nullptr, nullptr, "other", nullptr);
    EXPECT_EQ(con->connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_THAT(log.text(), HasSubstr("(SQL State=IM002) \n\n")) << "the driver manager's own";
    DBConnection::setDbUser(nullptr);
    DBConnection::setDbPassword("");
    DBConnection::setDbName("easdb");
    EXPECT_EQ(con->connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(con->disconnect(), 0);
    const eas::test::ScratchFile file(
        "database_name=easdb\ndatabase_user=u\ndatabase_password=p\ndatabase_schema_name=u\n");
    con = std::make_unique<DBConnection>(file.path().c_str(), false, 0);
    EXPECT_EQ(con->connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(con->disconnect(), 0);
    EXPECT_THAT(odbc.said("SQLConnect"),
                ElementsAre("nosuch, user, other", "easdb, , ", "easdb, u, p"));
}

TEST_F(Connection, CallersEnvironmentStaysTheCallers) {
    const SQLHANDLE env = DBConnection::createEnvHandle();
    con->setEnvHandle();
    con->setEnvHandle(env);
    con->setEnvHandle(env);
    EXPECT_EQ(con->getEnvHandle(), env);
    EXPECT_EQ(odbc.live_handles(), 1);
    EXPECT_EQ(connect(), 0);
    EXPECT_EQ(con->disconnect(), 0);
    con.reset();
    EXPECT_EQ(odbc.live_handles(), 1);
    EXPECT_EQ(DBLibrary::get()->SQLFreeHandle(SQL_HANDLE_ENV, env), SQL_SUCCESS);
}

TEST_F(Connection, ReturnCodesAreAnsweredByTheTable) {
    const std::tuple<SQLRETURN, int, const char*> rows[] = {
        {0, 0, ""},
        {1, 0, ""},
        {2, 0, ""},
        {99, 0, ""},
        {100, 0, ""},
        {-2, 1, "SQL_INVALID_HANDLE (-2)\n\n"},
        {-1, 2, "SQL_ERROR (-1)\n\n"},
        {101, 3, "Received unexpected error code (101)\n\n"}};
    for (const auto& [rc, answer, text] : rows) {
        const std::size_t before = log.text().size();
        EXPECT_EQ(HandleInfoPrint(SQL_HANDLE_DBC, nullptr, rc, 1, "file", true), answer);
        EXPECT_EQ(log.text().substr(before), text);
    }
}

TEST_F(Connection, DiagnosticsAreReadToTheEndAndShownOnRequest) {
    for (const bool shown : {false, true}) {
        const std::size_t before = log.text().size();
        odbc.inject({{"SQLGetDiagRec", 1, SQL_SUCCESS}, {"SQLGetDiagRec", 2, SQL_SUCCESS}});
        HandleDiagnosticsPrint(SQL_HANDLE_DBC, nullptr, shown);
        EXPECT_EQ(count("SQLGetDiagRec"), 3);
        EXPECT_EQ(log.text().substr(before), shown ? " (SQL State=) \n\n (SQL State=) \n\n" : "");
    }
}

}  // namespace
