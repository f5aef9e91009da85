// Transactions of the table records on real databases, and what is left after every failure.
#include "db/base_class/TxObject.h"

#include <fcntl.h>
#include <pthread.h>

#include <array>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "common/TQVN_EnergyCoEfficients.h"
#include "common/TQVN_EnergyPolicyTag.h"
#include "db/base_class/DBConnection.h"
#include "db/base_class/DBConnectionPool.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/DBTracer.h"
#include "gmock/gmock.h"
#include "tests/support/ScratchDatabase.h"

namespace eas::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* tags = "TQVN_EnergyPolicyTag";

struct Tag : TQVN_EnergyPolicyTag {
    explicit Tag(const std::string& name = "t", const std::string& user = "u", int frequency = 1) {
        selectAll();
        clear();
        copy(_energy_tag_name, name);
        copy(_user_name, user);
        copy(_cluster_name, "c1");
        copy(_job_id, "7.0");
        _default_frequency = 2600000;
        _frequency = frequency;
        _predict_power = 0.1 + 0.2;
        _energy_saving_pct = -1.0 / 3.0;
        _predict_elapse_time = 3600;
        _perf_degrad_pct = 1e-300;
        _create_time = std::int64_t{1} << 40;
    }
    template <std::size_t size>
    static void copy(char (&field)[size], const std::string& text) {
        if (text.size() >= size)
            throw std::length_error(text);
        std::memcpy(field, text.c_str(), text.size() + 1);
    }
};

class Transaction : public DatabaseTest {
  protected:
    void SetUp() override {
        DatabaseTest::SetUp();
        if (IsSkipped())
            return;
        ASSERT_TRUE(DBLibrary::init("libodbc.so"));
        connection_ = std::make_unique<DBConnection>(nullptr, false, 0);
        ASSERT_EQ(connection_->connect("easdb", nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    }
    void TearDown() override {
        if (IsSkipped())
            return;
        dbtrace_config(-1);
        EXPECT_EQ(connection_->disconnect(), 0);
        connection_.reset();
        DBLibrary::release();
    }

    DBConnection* connection() { return connection_.get(); }
    std::int64_t stored() { return database().rows(tags); }

    void start_trace() {
        trace_ = UniqueFd(::open((database().folder() / "trace").c_str(),
                                 O_CREAT | O_RDWR | O_APPEND | O_CLOEXEC, 0600));
        dbtrace_config(trace_.get());
    }
    /// What was traced, each record without its prefix and the empty line after it.
    std::string traced() {
        std::ifstream in(database().folder() / "trace");
        std::string all;
        for (std::string line; std::getline(in, line);) {
            if (!line.empty())
                all += line.substr(line.find('\t') + 1) + "\n";
        }
        return all;
    }

  private:
    std::unique_ptr<DBConnection> connection_;
    UniqueFd trace_;
};
INSTANTIATE_TEST_SUITE_P(On, Transaction, both_engines(), engine_suffix);

TEST_P(Transaction, RowsGoInAndComeBackAsTheyWere) {
    TxObject tx(connection());
    EXPECT_FALSE(tx.isAutoCommit());
    for (const int frequency : {3, 1, 2}) {
        Tag tag("t", "u", frequency);
        ASSERT_EQ(tx.insert(&tag, false), 0);
    }
    EXPECT_EQ(stored(), 0) << "not before the commit";
    ASSERT_EQ(tx.commit(), 0);
    EXPECT_EQ(stored(), 3);
    EXPECT_EQ(database().rows(tags, "where predict_power = 0.30000000000000004"), 3)
        << "what is stored is exact";

    Tag row("-", "-", 0);
    row._create_time = 0;
    std::vector<int> frequencies;
    ASSERT_EQ(tx.query(&row, " where cluster_name=\"c1\"", true), 0);
    int rc = 0;
    while ((rc = tx.fetch(&row)) == 0) {
        frequencies.push_back(row._frequency);
        EXPECT_STREQ(row._energy_tag_name, "t");
        EXPECT_STREQ(row._user_name, "u");
        EXPECT_STREQ(row._cluster_name, "c1");
        EXPECT_STREQ(row._job_id, "7.0");
        EXPECT_EQ(row._default_frequency, 2600000);
        EXPECT_NEAR(row._predict_power, 0.1 + 0.2, 1e-15);
        EXPECT_NEAR(row._energy_saving_pct, -1.0 / 3.0, 1e-15);
        EXPECT_EQ(row._predict_elapse_time, 3600);
        EXPECT_NEAR(row._perf_degrad_pct, 1e-300, 1e-314);
        EXPECT_EQ(row._create_time, std::int64_t{1} << 40);
    }
    EXPECT_EQ(rc, SQL_NO_DATA);
    EXPECT_THAT(frequencies, ElementsAre(1, 2, 3));
    EXPECT_EQ(tx.fetch(&row), SQL_INVALID_HANDLE) << "idle after the last row";
}

TEST_P(Transaction, UpdatesDeletesAndCounts) {
    TxObject tx(connection());
    for (const int frequency : {1, 2, 3}) {
        Tag tag("t", "u", frequency);
        ASSERT_EQ(tx.insert(&tag, false), 0);
    }
    Tag changed("t2", "u", 0);
    changed._predict_power = 5.5;
    changed.setBitMap(ColumnsBitMap(0b1000001));  // name and power
    EXPECT_EQ(tx.update(&changed, "where frequency > 1"), 0);
    EXPECT_EQ(tx.count(tags, nullptr), 3);
    EXPECT_EQ(tx.count(tags, "where energy_tag_name='t2' and predict_power=5.5"), 2);
    EXPECT_EQ(tx.del(&changed, "where frequency = 3"), 0);
    EXPECT_THAT(tx.del(&changed, "where frequency = 3"), testing::AnyOf(SQL_NO_DATA, 0))
        << "ODBC 3 has 100 for no row, MariaDB's driver says 0";
    EXPECT_EQ(tx.execStmt("delete from TQVN_EnergyPolicyTag where frequency = 1"), 0);

    SQLHANDLE statement = nullptr;
    ASSERT_EQ(tx.execQuery("select frequency from TQVN_EnergyPolicyTag", &statement), 0);
    std::int32_t frequency = 0;
    DBLibrary::get()->SQLBindCol(statement, 1, SQL_C_LONG, &frequency, 4, nullptr);
    EXPECT_EQ(DBLibrary::get()->SQLFetch(statement), 0);
    EXPECT_EQ(frequency, 2);
    EXPECT_EQ(tx.close(nullptr), 0);
    EXPECT_EQ(tx.close(nullptr), 0);

    EXPECT_EQ(tx.commit(), 0);
    EXPECT_EQ(stored(), 1);
    EXPECT_EQ(tx.count("no_such_table", nullptr), SQL_ERROR);
    EXPECT_EQ(tx.execQuery("no sql", &statement), SQL_ERROR);
    EXPECT_EQ(tx.count(tags, nullptr), 1) << "the next statement works";
}

TEST_P(Transaction, SomeColumnsAloneAreSelectedByRank) {
    database().seed_coefficients("c", 2600000, 2400000, 100000, 3);
    TxObject tx(connection());
    Tag tag("t", "u", 1);
    ASSERT_EQ(tx.insert(&tag, false), 0);
    Tag row("-", "-", 0);
    row.setBitMap(ColumnsBitMap(0b110100001));
    ASSERT_EQ(tx.query(&row, nullptr, true), 0);
    ASSERT_EQ(tx.fetch(&row), 0);
    EXPECT_STREQ(row._energy_tag_name, "t");
    EXPECT_STREQ(row._user_name, "-") << "not selected";
    EXPECT_STREQ(row._job_id, "7.0");
    EXPECT_EQ(row._predict_elapse_time, 3600);

    TQVN_EnergyCoEfficients coefficients;
    coefficients.setBitMap(ColumnsBitMap(511));
    ASSERT_EQ(tx.query(&coefficients,
                       " where cluster_name=\"c\" and default_frequency=2600000 order by "
                       "frequency asc",
                       true),
              0);
    std::vector<double> factors;
    while (tx.fetch(&coefficients) == 0) {
        factors.push_back(coefficients._factor_a);
        factors.push_back(coefficients._factor_f);
    }
    EXPECT_THAT(factors, ElementsAre(2.4, 14.4, 2.5, 15.0, 0.0, 0.0));
}

TEST_P(Transaction, NullTextsComeEmptyAndNullNumbersKeepTheOldValue) {
    plain().run("drop table TQVN_EnergyPolicyTag");
    plain().run(
        "create table TQVN_EnergyPolicyTag (energy_tag_name varchar(256), user_name "
        "varchar(256), default_frequency int, cluster_name varchar(40), frequency int, "
        "job_id varchar(1024), predict_power double, energy_saving_pct double, "
        "predict_elapse_time int, perf_degrad_pct double, create_time bigint)");
    plain().run("insert into TQVN_EnergyPolicyTag (energy_tag_name, frequency) values ('t', 9)");
    TxObject tx(connection());
    Tag row("old", "old", 1);
    ASSERT_EQ(tx.query(&row, nullptr, true), 0);
    ASSERT_EQ(tx.fetch(&row), 0);
    EXPECT_STREQ(row._energy_tag_name, "t");
    EXPECT_STREQ(row._user_name, "");
    EXPECT_STREQ(row._job_id, "");
    EXPECT_EQ(row._frequency, 9);
    if (GetParam() == Engine::mariadb) {  // SQLite's driver writes a zero for a null number
        EXPECT_EQ(row._predict_power, 0.1 + 0.2);
        EXPECT_EQ(row._create_time, std::int64_t{1} << 40);
    }
    std::ostringstream out;
    row.dump(out);
    EXPECT_THAT(out.str(), testing::AllOf(HasSubstr("_frequency                = 9\n"),
                                          testing::Not(HasSubstr("_user_name"))));
}

TEST_P(Transaction, NamesOfAnyBytesFindTheirOwnRowsOnly) {
    const std::string longest(256, '\xe4');
    const std::vector<std::string> names{"SITE\\anna", "SITEanna",   "a",       "a ",
                                         "A",          "\xc3\xa4",   "\xff",    "it's",
                                         "a?b",        "{fn now()}", "%s",      "; drop table x --",
                                         longest,      "x\\\\",      "1 or 1=1"};
    TxObject tx(connection());
    for (const std::string& name : names) {
        Tag tag(name, name);
        ASSERT_EQ(tx.insert(&tag, false), 0) << name;
    }
    ASSERT_EQ(tx.commit(), 0);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string where =
            " where user_name=\"" + names[i] + "\" and energy_tag_name=\"" + names[i] + "\"";
        Tag row("", "");
        ASSERT_EQ(tx.query(&row, where.c_str(), true), 0) << where;
        ASSERT_EQ(tx.fetch(&row), 0) << where;
        EXPECT_EQ(row._user_name, names[i]);
        EXPECT_EQ(tx.fetch(&row), SQL_NO_DATA) << where;
        EXPECT_EQ(tx.del(&row, where.c_str()), 0) << where;
        EXPECT_EQ(tx.count(tags, nullptr), static_cast<int>(names.size() - i - 1)) << where;
    }
}

TEST_P(Transaction, AFailedInsertTakesTheWholeTagBack) {
    plain().run("insert into TQVN_EnergyPolicyTag values ('t','u',2600000,'c1',3,'j',1,1,1,1,1)");
    TxObject tx(connection());
    Tag first("t", "u", 1), second("t", "u", 2), taken("t", "u", 3);
    EXPECT_EQ(tx.insert(&first, false), 0);
    EXPECT_EQ(tx.insert(&second, false), 0);
    EXPECT_EQ(tx.insert(&taken, false), SQL_ERROR);
    EXPECT_EQ(tx.commit(), 0);
    EXPECT_EQ(stored(), 1);

    EXPECT_EQ(tx.insert(&first, false), 0);
    EXPECT_EQ(tx.rollback(), 0);
    EXPECT_EQ(tx.commit(), 0);
    EXPECT_EQ(stored(), 1);
}

TEST_P(Transaction, TheEndOfATransactionObjectDecidesNothing) {
    {
        TxObject tx(connection());
        Tag tag;
        ASSERT_EQ(tx.insert(&tag, false), 0);
        ASSERT_EQ(tx.query(&tag, nullptr, true), 0) << "left open";
    }
    EXPECT_EQ(stored(), 0);
    EXPECT_EQ(connection()->commit(), 0);
    EXPECT_EQ(stored(), 1);
}

TEST_P(Transaction, EmptyStatementsAreRefusedAndTextsAreLoggedAsSent) {
    database().seed_coefficients("c", 2600000, 1, 1, 1);
    TxObject tx(connection());
    start_trace();
    TQVN_EnergyCoEfficients nothing;
    const std::string blank = "Statement to execute is blank (SQL_ERROR)\n";
    EXPECT_EQ(tx.query(&nothing, " where x", true), -1);
    EXPECT_EQ(tx.queryByKey(&nothing), -1);
    EXPECT_EQ(tx.updateByKey(&nothing), -1);
    EXPECT_EQ(tx.delByKey(&nothing), -1);
    EXPECT_EQ(tx.insert(&nothing, false), -1);
    EXPECT_EQ(tx.execStmt(nullptr), -1);
    EXPECT_EQ(tx.execStmt(""), -1);
    std::string expected;
    for (int i = 0; i < 5; ++i)
        expected += blank;
    expected += "Statement to execute is NULL (SQL_ERROR)\n" + blank;

    Tag tag;
    EXPECT_EQ(tx.insert(&tag, true), 0) << "the delete by key is refused, the insert goes on";
    expected +=
        blank +
        "Successfully executed: insert into TQVN_EnergyPolicyTag (energy_tag_name,user_name,"
        "default_frequency,cluster_name,frequency,job_id,predict_power,energy_saving_pct,"
        "predict_elapse_time,perf_degrad_pct,create_time) values (?,?,?,?,?,?,?,?,?,?,?)\n";
    EXPECT_EQ(tx.query(&tag, " where frequency=1", true), 0);
    EXPECT_EQ(tx.del(&nothing, "where frequency=1"), 0);
    expected +=
        "Successfully executed: select * from TQVN_EnergyPolicyTag  where frequency=1\n"
        "Successfully executed: delete from TQVN_EnergyCoEfficients  where frequency=1\n";
    EXPECT_EQ(traced(), expected);

    EXPECT_EQ(tx.query(&tag, "no condition", false), SQL_ERROR);
    expected +=
        "Failed executing: select * from TQVN_EnergyPolicyTag no condition (rc=-1)\n"
        "SQL_ERROR (-1)\n"
        "Rolling back the transaction... (utilcli)\n"
        "The transaction rolled back. (utilcli)\n";
    EXPECT_EQ(traced(), expected);
    EXPECT_EQ(tx.query(&tag, "no condition", true), SQL_ERROR);
    EXPECT_THAT(traced().substr(expected.size()), HasSubstr("SQL State="));
}

TEST_P(Transaction, APooledConnectionGoesBackUncommitted) {
    DBConnectionPool::init("easdb", nullptr, nullptr, nullptr, 1, 2, nullptr, nullptr);
    DBConnectionPool* pool = DBConnectionPool::Instance();
    ASSERT_NE(pool, nullptr);
    {
        TxObject tx(pool);
        EXPECT_EQ(pool->usedCount(), 1U);
        Tag tag;
        EXPECT_EQ(tx.insert(&tag, false), 0);
    }
    EXPECT_EQ(pool->usedCount(), 0U);
    EXPECT_EQ(stored(), 0);
    DBConnectionPool::terminate();
}

// ------------------------------------------------------------------------- faults of the driver

/// Counts the statements that are open, and refuses one call of one entry point.
struct Driver {
    static inline DBLibrary real;
    static inline int open_statements = 0;
    static inline const char* entry = "";
    static inline int calls_until_fault = -1;
    static inline SQLRETURN code = SQL_ERROR;

    static bool refused(const char* name) {
        return std::strcmp(entry, name) == 0 && calls_until_fault >= 0 && calls_until_fault-- == 0;
    }
    static SQLRETURN SQL_API alloc(SQLSMALLINT type, SQLHANDLE parent, SQLHANDLE* out) {
        if (refused("SQLAllocHandle"))
            return code;
        const SQLRETURN rc = real.SQLAllocHandle(type, parent, out);
        if (rc == SQL_SUCCESS && type == SQL_HANDLE_STMT)
            ++open_statements;
        return rc;
    }
    static SQLRETURN SQL_API free(SQLSMALLINT type, SQLHANDLE handle) {
        const bool refuse = refused("SQLFreeHandle");
        if (refuse && code == SQL_ERROR)
            return code;  // the one answer after which the handle is still there
        const SQLRETURN rc = real.SQLFreeHandle(type, handle);
        if (rc == SQL_SUCCESS && type == SQL_HANDLE_STMT)
            --open_statements;
        return refuse ? code : rc;
    }
    static SQLRETURN SQL_API exec(SQLHSTMT handle, SQLCHAR* text, SQLINTEGER length) {
        return refused("SQLExecDirect") ? code : real.SQLExecDirect(handle, text, length);
    }
    static SQLRETURN SQL_API fetch(SQLHSTMT handle) {
        return refused("SQLFetch") ? code : real.SQLFetch(handle);
    }
    static SQLRETURN SQL_API bind_col(SQLHSTMT handle, SQLUSMALLINT position, SQLSMALLINT type,
                                      SQLPOINTER value, SQLLEN size, SQLLEN* indicator) {
        if (refused("SQLBindCol"))
            return code;
        return real.SQLBindCol(handle, position, type, value, size, indicator);
    }
    static SQLRETURN SQL_API bind_parameter(SQLHSTMT handle, SQLUSMALLINT position,
                                            SQLSMALLINT direction, SQLSMALLINT type,
                                            SQLSMALLINT sql_type, SQLULEN column_size,
                                            SQLSMALLINT digits, SQLPOINTER value, SQLLEN size,
                                            SQLLEN* indicator) {
        if (refused("SQLBindParameter"))
            return code;
        return real.SQLBindParameter(handle, position, direction, type, sql_type, column_size,
                                     digits, value, size, indicator);
    }
    static void install() {
        ASSERT_TRUE(real.loadLibrary("libodbc.so"));
        DBLibrary* odbc = DBLibrary::get();
        odbc->SQLAllocHandle = &alloc;
        odbc->SQLFreeHandle = &free;
        odbc->SQLExecDirect = &exec;
        odbc->SQLFetch = &fetch;
        odbc->SQLBindCol = &bind_col;
        odbc->SQLBindParameter = &bind_parameter;
    }
};

/// Two rows in, read back, committed only if all went well. Returns whether it did.
bool store_two_rows(TxObject& tx) {
    Tag first("t", "u", 1), second("t", "u", 2);
    if (tx.insert(&first, false) != 0 || tx.insert(&second, false) != 0)
        return false;
    if (tx.count(tags, nullptr) != 2) {
        tx.rollback();
        return false;
    }
    Tag row;
    int rows = 0;
    int rc = tx.query(&row, nullptr, true);
    while (rc == 0 && (rc = tx.fetch(&row)) == 0)
        ++rows;
    if (rc != SQL_NO_DATA || rows != 2) {
        tx.rollback();
        return false;
    }
    return tx.commit() == 0;
}

TEST_P(Transaction, EveryRefusedCallLeavesAllOrNothingAndNoStatement) {
    Driver::install();
    int faults = 0;
    for (const char* entry : {"SQLAllocHandle", "SQLBindParameter", "SQLExecDirect", "SQLBindCol",
                              "SQLFetch", "SQLFreeHandle"}) {
        for (const int code : {SQL_ERROR, SQL_INVALID_HANDLE, 77, SQL_NEED_DATA}) {
            for (int call = 0;; ++call) {
                SCOPED_TRACE(entry + std::string(" call ") + std::to_string(call) + " answers " +
                             std::to_string(code));
                Driver::entry = entry;
                Driver::code = static_cast<SQLRETURN>(code);
                Driver::calls_until_fault = call;
                bool done = false;
                {
                    TxObject tx(connection());
                    done = store_two_rows(tx);
                }
                const bool hit = Driver::calls_until_fault < 0;
                Driver::calls_until_fault = -1;
                ASSERT_EQ(Driver::open_statements, 0);
                EXPECT_EQ(connection()->rollback(), 0);
                EXPECT_EQ(stored(), done ? 2 : 0);
                plain().run("delete from TQVN_EnergyPolicyTag");
                if (!hit) {
                    EXPECT_TRUE(done);
                    break;
                }
                ++faults;
            }
        }
    }
    EXPECT_GT(faults, 150);
}

TEST_P(Transaction, AnExceptionOrACancelledThreadLeavesNoStatement) {
    Driver::install();
    struct Thrower : Tag {
        SQLRETURN bind_param(SQLHANDLE, SQLHANDLE) override { throw std::bad_alloc(); }
    } thrower;
    {
        TxObject tx(connection());
        EXPECT_THROW(tx.insert(&thrower, false), std::bad_alloc);
    }
    EXPECT_EQ(Driver::open_statements, 0);

    struct Canceller : Tag {
        SQLRETURN bind_param(SQLHANDLE, SQLHANDLE) override {
            pthread_cancel(pthread_self());
            pthread_testcancel();
            return 0;
        }
    };
    pthread_t thread{};
    const auto run = [](void* connection) -> void* {
        TxObject tx(static_cast<DBConnection*>(connection));
        Canceller canceller;
        tx.insert(&canceller, false);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, run, connection()), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(Driver::open_statements, 0);
}

}  // namespace
}  // namespace eas::test
