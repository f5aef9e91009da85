// The connection on the real driver manager with SQLite's driver, which refuses to disconnect while
// a transaction is open and writes four bytes for autocommit.
#include <filesystem>
#include <fstream>

#include "db/base_class/DBConnection.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/OdbcHandle.h"
#include "gmock/gmock.h"
#include "tests/support/TraceCapture.h"

// The driver manager and the driver keep some memory per connect, and once they are unloaded the
// leak checker cannot tell whose it was. Descriptors are counted below.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "detect_leaks=0";
}

namespace {

namespace fs = std::filesystem;

class SqliteConnection : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = fs::temp_directory_path() / "eas-connection-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        std::ofstream(folder_ / "odbc.ini")
            << "[scratch]\nDriver=SQLite3\nDatabase=" << (folder_ / "scratch.db").string() << '\n';
        ::setenv("ODBCINI", (folder_ / "odbc.ini").c_str(), 1);
        ASSERT_TRUE(DBLibrary::init("libodbc.so"));
    }
    void TearDown() override {
        DBLibrary::release();
        fs::remove_all(folder_);
    }
    static int connect(DBConnection& con, const char* dsn) {
        return con.connect(dsn, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    static SQLRETURN run(DBConnection& con, const char* sql) {
        eas::OdbcHandle statement(SQL_HANDLE_STMT);
        statement.allocate(con.getConnHandle());
        std::string text = sql;
        return DBLibrary::get()->SQLExecDirect(statement.get(),
                                               reinterpret_cast<SQLCHAR*>(text.data()), SQL_NTS);
    }
    static std::ptrdiff_t open_descriptors() {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    }

    fs::path folder_;
};

TEST_F(SqliteConnection, OpenTransactionIsRolledBackAndNothingStaysOpen) {
    const auto before = open_descriptors();
    for (int round = 0; round < 3; ++round) {
        DBConnection con(nullptr, false, 0);
        ASSERT_EQ(connect(con, "scratch"), 0);
        EXPECT_TRUE(con.isAutoCommit());
        EXPECT_EQ(run(con, "create table if not exists t (a integer)"), SQL_SUCCESS);
        EXPECT_EQ(con.setAutoCommit(false), 0);
        EXPECT_EQ(run(con, "insert into t values (1)"), SQL_SUCCESS);
        const eas::test::TraceCapture log;
        EXPECT_EQ(con.disconnect(), 0);
        EXPECT_THAT(log.text(), testing::HasSubstr("SQL State=25000"));  // it was refused first
    }
    EXPECT_EQ(open_descriptors(), before);

    DBConnection con(nullptr, false, 0);
    ASSERT_EQ(connect(con, "scratch"), 0);
    EXPECT_EQ(run(con, "create unique index u on t (a)"), SQL_SUCCESS);
    EXPECT_EQ(con.setAutoCommit(false), 0);
    EXPECT_EQ(run(con, "insert into t values (1)"), SQL_SUCCESS) << "no earlier row was kept";
    EXPECT_EQ(con.commit(), 0);
    EXPECT_EQ(con.disconnect(), 0);
}

TEST_F(SqliteConnection, UnknownDataSourceIsRefusedWithItsDiagnostics) {
    const eas::test::TraceCapture log;
    DBConnection con(nullptr, false, 0);
    EXPECT_EQ(connect(con, "no such source"), -1);
    EXPECT_THAT(log.text(), testing::HasSubstr("(SQL State=IM002"));
    EXPECT_EQ(connect(con, "scratch"), 0) << "the object can be used again";
    EXPECT_EQ(con.disconnect(), 0);
}

}  // namespace
