// Transactions of the table records on real databases, and what is left after every failure.
#include "db/base_class/TxObject.h"

#include <pthread.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/records/TQVN_EnergyCoEfficients.h"
#include "common/records/TQVN_EnergyPolicyTag.h"
#include "db/base_class/DBConnection.h"
#include "db/base_class/DBConnectionPool.h"
#include "db/base_class/DBLibrary.h"
#include "gmock/gmock.h"
#include "tests/support/FaultyDriverManager/FaultyDriverManager.h"
#include "tests/support/ScratchDatabase.h"
#include "tests/support/TraceCapture.h"

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
    void set_up_database() override {
        ASSERT_TRUE(DBLibrary::init("libodbc.so"));
        connection_ = std::make_unique<DBConnection>(nullptr, false, 0);
        ASSERT_EQ(connection_->connect("easdb", nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    }
    void TearDown() override {
        if (IsSkipped())
            return;
        EXPECT_EQ(connection_->disconnect(), 0);
        connection_.reset();
        DBLibrary::release();
    }

    DBConnection* connection() { return connection_.get(); }
    std::int64_t stored() { return database().rows(tags); }

    FaultyDriverManager& odbc = FaultyDriverManager::load();

  private:
    std::unique_ptr<DBConnection> connection_;
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
    EXPECT_EQ(database().rows(tags,
                              "where energy_tag_name='t' and user_name='u' and cluster_name='c1' "
                              "and job_id='7.0' and default_frequency=2600000 and frequency<4 and "
                              "predict_power=0.30000000000000004 and energy_saving_pct<-0.3 and "
                              "predict_elapse_time=3600 and perf_degrad_pct between 0 and 1e-299 "
                              "and create_time=1099511627776"),
              3)
        << "each in its column, and what is stored is exact";

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
    row._frequency = 4;
    ASSERT_EQ(tx.insert(&row, false), 0);
    EXPECT_EQ(tx.fetch(&row), SQL_INVALID_HANDLE) << "idle after the last row";
    ASSERT_EQ(tx.commit(), 0);
    EXPECT_EQ(stored(), 3) << "like any failure it rolled back";
}

TEST_P(Transaction, UpdatesDeletesAndCounts) {
    TxObject tx(connection());
    for (const int frequency : {1, 2, 3}) {
        Tag tag("t", "u", frequency);
        ASSERT_EQ(tx.insert(&tag, false), 0);
    }
    Tag changed("t2", "u", 0);
    changed._predict_power = 5.5;
    changed._predict_elapse_time = 7;
    changed._create_time = 8;
    changed.setBitMap(ColumnsBitMap(0b10101000001));
    odbc.inject({});
    EXPECT_EQ(tx.update(&changed, "where frequency > 1"), 0);
    EXPECT_THAT(odbc.said("SQLBindParameter"),
                ElementsAre("1:1:1:1:256:0:2:0", "2:1:8:8:0:0:0:0", "3:1:4:4:0:0:0:0",
                            "4:1:-25:-5:0:0:0:0"));
    EXPECT_EQ(tx.count(tags, nullptr), 3);
    EXPECT_EQ(tx.count(tags,
                       "where energy_tag_name='t2' and predict_power=5.5 and "
                       "predict_elapse_time=7 and create_time=8"),
              2);
    Tag part("-", "-", 0);
    part.setBitMap(ColumnsBitMap(0b10001101001));
    odbc.inject({});
    ASSERT_EQ(tx.query(&part, "where frequency = 2", true), 0);
    EXPECT_THAT(odbc.said("SQLBindCol"),
                ElementsAre("1:1:257:0", "2:1:41:0", "3:1:1025:0", "4:8:8:0", "5:-25:8:0"));
    ASSERT_EQ(tx.fetch(&part), 0);
    EXPECT_THAT((std::vector<std::string>{part._energy_tag_name, part._user_name,
                                          part._cluster_name, part._job_id}),
                ElementsAre("t2", "-", "c1", "7.0"));
    EXPECT_EQ(part._predict_power, 5.5);
    EXPECT_EQ(part._create_time, 8);
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
    EXPECT_THAT(out.str(), testing::Not(HasSubstr("_user_name")));
    odbc.inject({});
    ASSERT_EQ(tx.query(&row, nullptr, true), 0);
    EXPECT_THAT(odbc.said("SQLBindCol"), testing::Each(testing::EndsWith(":0")))
        << "the null of the row before is forgotten";
}

TEST_P(Transaction, AFailedBindFreesTheStatementsResourcesAndRollsBack) {
    TxObject tx(connection());
    Tag tag;
    ASSERT_EQ(tx.insert(&tag, false), 0);
    odbc.inject({{"SQLBindCol", 3, SQL_ERROR}});
    EXPECT_EQ(tx.query(&tag, nullptr, true), 0) << "the query itself was executed";
    EXPECT_TRUE(odbc.end_faults());
    std::string calls;
    for (const auto& call : odbc.calls())
        calls += call.entry_point.substr(3) + call.said.substr(0, call.said.find(' ')) + " ";
    EXPECT_EQ(calls,
              "AllocHandle ExecDirectselect BindCol1:1:257:0 BindCol2:1:257:0 BindCol3:4:4:0 "
              "GetDiagRec FreeStmt FreeStmt FreeStmt EndTranrollback FreeHandle ");
    odbc.inject({{"SQLBindParameter", 1, SQL_ERROR}});
    EXPECT_NE(tx.insert(&tag, false), 0);
    EXPECT_EQ(odbc.said("SQLFreeStmt").size(), 3U + 3U)
        << "for the bind, and for the execution without parameters";
    EXPECT_EQ(tx.commit(), 0);
    EXPECT_EQ(stored(), 0);
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
    const TraceCapture log;
    TQVN_EnergyCoEfficients nothing;
    const std::string blank = "Statement to execute is blank (SQL_ERROR)\n\n";
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
    expected += "Statement to execute is NULL (SQL_ERROR)\n\n" + blank;

    Tag tag;
    EXPECT_EQ(tx.insert(&tag, true), 0) << "the delete by key is refused, the insert goes on";
    expected +=
        blank +
        "Successfully executed: insert into TQVN_EnergyPolicyTag (energy_tag_name,user_name,"
        "default_frequency,cluster_name,frequency,job_id,predict_power,energy_saving_pct,"
        "predict_elapse_time,perf_degrad_pct,create_time) values (?,?,?,?,?,?,?,?,?,?,?)\n\n";
    EXPECT_EQ(tx.query(&tag, " where frequency=1", true), 0);
    EXPECT_EQ(tx.del(&nothing, "where frequency=1"), 0);
    expected +=
        "Successfully executed: select * from TQVN_EnergyPolicyTag  where frequency=1\n\n"
        "Successfully executed: delete from TQVN_EnergyCoEfficients  where frequency=1\n\n";
    EXPECT_EQ(log.text(), expected);

    EXPECT_EQ(tx.query(&tag, "no condition", false), SQL_ERROR);
    expected +=
        "Failed executing: select * from TQVN_EnergyPolicyTag no condition (rc=-1)\n\n"
        "SQL_ERROR (-1)\n\n"
        "Rolling back the transaction... (utilcli)\n\n"
        "The transaction rolled back. (utilcli)\n\n";
    EXPECT_EQ(log.text(), expected);
    EXPECT_EQ(tx.query(&tag, "no condition", true), SQL_ERROR);
    EXPECT_THAT(log.text().substr(expected.size()), HasSubstr("SQL State="));
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

// The other statements fail in every way in the tests of the scheduler functions, which count none.
TEST_P(Transaction, ACountThatFailsIsNoNumberAndLeavesNoStatement) {
    const int open = odbc.live_handles();
    for (const Fault& fault : {Fault{"SQLAllocHandle", 1, SQL_ERROR},
                               {"SQLBindCol", 1, SQL_ERROR},
                               {"SQLExecDirect", 1, SQL_ERROR},
                               {"SQLFetch", 1, SQL_ERROR},
                               {"SQLFetch", 1, SQL_NO_DATA},
                               {"SQLFreeHandle", 1, SQL_ERROR}}) {
        SCOPED_TRACE(fault.entry_point);
        {
            TxObject tx(connection());
            odbc.inject({fault});
            EXPECT_EQ(tx.count(tags, nullptr), SQL_ERROR);
            EXPECT_TRUE(odbc.end_faults());
        }
        EXPECT_EQ(odbc.live_handles(), open);
    }
}

TEST_P(Transaction, ACancelledThreadLeavesNoStatement) {
    const int open = odbc.live_handles();
    struct Canceller : Tag {
        SQLRETURN bind_param(SQLHANDLE, SQLHANDLE) override {
            pthread_cancel(pthread_self());
            pthread_testcancel();
            return 0;
        }
    };
    std::thread([this] {
        TxObject tx(connection());
        Canceller canceller;
        tx.insert(&canceller, false);
        ADD_FAILURE() << "the thread went on";
    }).join();
    EXPECT_EQ(odbc.live_handles(), open);
}

}  // namespace
}  // namespace eas::test
