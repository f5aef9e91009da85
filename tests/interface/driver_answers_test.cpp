// Answers of a driver that no real one gives at will, put in front of SQLite's.
#include "common/CoEfficients.h"
#include "db/base_class/DBConnection.h"
#include "db/base_class/DBLibrary.h"
#include "interface/TagStore.h"
#include "tests/support/SchedulerCalls.h"

namespace {

using namespace eas::test;

/// The driver behind the entry points that a test replaces, and what they saw.
DBLibrary real;
int calls;

class DriverAnswers : public SchedulerTest {
  protected:
    void SetUp() override {
        SchedulerTest::SetUp();
        if (IsSkipped())
            return;
        ASSERT_TRUE(real.loadLibrary("libodbc.so"));
        ASSERT_EQ(initialize(), EAS_OK);
        calls = 0;
    }
    static DBLibrary& odbc() { return *DBLibrary::get(); }
};

INSTANTIATE_TEST_SUITE_P(On, DriverAnswers, ::testing::Values(Engine::sqlite), engine_suffix);

constexpr int last_of_second_row = 22;  // a row has eleven columns

/// Binds, whatever it answers.
SQLRETURN SQL_API bind_and_refuse(SQLHSTMT statement, SQLUSMALLINT position, SQLSMALLINT direction,
                                  SQLSMALLINT type, SQLSMALLINT sql_type, SQLULEN column_size,
                                  SQLSMALLINT digits, SQLPOINTER value, SQLLEN size,
                                  SQLLEN* indicator) {
    const SQLRETURN rc = real.SQLBindParameter(statement, position, direction, type, sql_type,
                                               column_size, digits, value, size, indicator);
    return ++calls == last_of_second_row ? SQLRETURN{SQL_ERROR} : rc;
}

TEST_P(DriverAnswers, ABindThatFailsAndTakesEffectStoresNoRowOfATag) {
    odbc().SQLBindParameter = bind_and_refuse;
    odbc().SQLFreeStmt = [](SQLHSTMT, SQLUSMALLINT) { return SQLRETURN{SQL_ERROR}; };
    EXPECT_EQ(generate("anna", "t"), EAS_STORE_FAILED);
    EXPECT_EQ(calls, last_of_second_row);
    EXPECT_EQ(tag_rows(), 0);
}

TEST_P(DriverAnswers, AStatementThatFailsIsFreedOfItsBindingsOnce) {
    odbc().SQLBindParameter = [](SQLHSTMT, SQLUSMALLINT, SQLSMALLINT, SQLSMALLINT, SQLSMALLINT,
                                 SQLULEN, SQLSMALLINT, SQLPOINTER, SQLLEN,
                                 SQLLEN*) { return SQLRETURN{SQL_ERROR}; };
    odbc().SQLFreeStmt = [](SQLHSTMT statement, SQLUSMALLINT option) {
        ++calls;
        return real.SQLFreeStmt(statement, option);
    };
    EXPECT_EQ(generate("anna", "t"), EAS_STORE_FAILED);
    EXPECT_EQ(calls, 3 + 3) << "for the bind, and for the execution without parameters";
    EXPECT_EQ(tag_rows(), 0);
}

TEST_P(DriverAnswers, WithoutAStatementNoSchemaIsSet) {
    DBConnection connection(nullptr, false, 0);
    ASSERT_EQ(connection.connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    odbc().SQLExecDirect = [](SQLHSTMT, SQLCHAR*, SQLINTEGER) {
        ++calls;
        return SQLRETURN{SQL_ERROR};
    };
    for (const int code : {SQL_STILL_EXECUTING, SQL_NEED_DATA, SQL_NO_DATA}) {
        static SQLRETURN answer;
        answer = static_cast<SQLRETURN>(code);
        odbc().SQLAllocHandle = [](SQLSMALLINT, SQLHANDLE, SQLHANDLE*) { return answer; };
        EXPECT_EQ(connection.setDbSchema("site"), code);
    }
    EXPECT_EQ(calls, 0);
    odbc().SQLAllocHandle = real.SQLAllocHandle;
    EXPECT_EQ(connection.disconnect(), 0);
}

char* bound_name;  // of the coefficient row: the third column

TEST_P(DriverAnswers, ACoefficientRowOfNoClusterIsTakenAndOneOfAnotherIsNot) {
    odbc().SQLBindCol = [](SQLHSTMT statement, SQLUSMALLINT position, SQLSMALLINT type,
                           SQLPOINTER value, SQLLEN size, SQLLEN* indicator) {
        if (position == 3)
            bound_name = static_cast<char*>(value);
        return real.SQLBindCol(statement, position, type, value, size, indicator);
    };
    for (const char* name : {"", "C"}) {
        static char first;
        first = *name;
        odbc().SQLFetch = [](SQLHSTMT statement) {
            const SQLRETURN rc = real.SQLFetch(statement);
            *bound_name = first;
            return rc;
        };
        const eas::OwnedConnection connection(create_db_connection());
        CoEfficients read;
        const bool taken = *name == '\0';
        EXPECT_EQ(read_coeffs_from_db(connection.get(), "c1", default_frequency, read),
                  taken ? 0 : 1);
        EXPECT_EQ(read.total_frequencies(), taken ? 4 : 0);
    }
}

}  // namespace
