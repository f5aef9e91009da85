// The connection pool, and the properties file that configures it.
#include "db/base_class/DBConnectionPool.h"

#include <pthread.h>

#include <thread>
#include <vector>

#include "db/base_class/Properties.h"
#include "db/base_class/TxObject.h"
#include "tests/db/OdbcTest.h"

namespace {

int switched = 0;
int switched_back = 0;

int set_user(unsigned) {
    return ++switched;
}

int unset_user() {
    return ++switched_back;
}

using eas::test::ScratchFile;
using testing::HasSubstr;
using Map = std::map<std::string, std::string>;

TEST(PropertiesFile, LinesAreReadAsDocumented) {
    const std::string long_value(300, 'v');
    const std::pair<std::string, Map> rows[] = {
        {"a=1\n", {{"a", "1"}}},
        {"a=1", {}},
        {"a=1\nb=2", {{"a", "1"}}},
        {"  a b  =  c = d  \n\nno pair\na b=2\n", {{"a b", "2"}}},
        {"a=\n=b\n", {{"a", ""}, {"", "b"}}},
        {"\ta=b\t\r\n", {{"\ta", "b\t\r"}}},
        {"k=" + long_value + "\n", {{"k", long_value.substr(0, 253)}}},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(Properties(ScratchFile(text).path().c_str()).getPropertiesMap(), expected)
            << text;
}

TEST(PropertiesFile, IsRejectedByItsFirstLineAndWhenItCannotBeRead) {
    const eas::test::TraceCapture log;
    const ScratchFile commented("# a comment\na=1\n");
    const ScratchFile empty("");
    std::string expected;
    for (const std::string& path : {commented.path(), empty.path(), std::string("/")}) {
        EXPECT_THAT(Properties(path.c_str()).getPropertiesMap(), testing::IsEmpty());
        expected += "Invalid properties file " + path + " specified\n\n";
    }
    EXPECT_THAT(Properties("/no/such/file").getPropertiesMap(), testing::IsEmpty());
    EXPECT_EQ(log.text(), expected + "Cannot open properties file /no/such/file\n\n");
    Properties missing;
    EXPECT_EQ(missing["key"], "");
    EXPECT_EQ(missing.getPropertiesMap().size(), 1);
}

class Pool : public eas::test::OdbcTest {
  protected:
    void SetUp() override {
        OdbcTest::SetUp();
        ::unsetenv("MIN_POOL_CONNECTIONS");
    }
    void TearDown() override {
        DBConnectionPool::terminate();
        OdbcTest::TearDown();
    }
    static DBConnectionPool& start(int min, int max) {
        DBConnectionPool::init("easdb", "anna", "pw", nullptr, min, max, set_user, unset_user);
        return *DBConnectionPool::Instance();
    }
    /// Environment and connection of each.
    int connected() { return odbc.live_handles() / 2; }
};

TEST_F(Pool, HandsOutPooledThenTemporaryConnections) {
    DBConnectionPool& pool = start(1, 1);
    EXPECT_EQ(pool.availableCount(), 1);
    DBConnection* pooled = pool.checkout();
    DBConnection* temporary = pool.checkout();
    ASSERT_NE(temporary, nullptr);
    EXPECT_TRUE(pooled->isPooled());
    EXPECT_FALSE(temporary->isPooled());
    EXPECT_EQ(pool.usedCount(), 2);
    EXPECT_EQ(switched, 2);
    EXPECT_EQ(switched_back, 2);
    pool.checkin(temporary);
    EXPECT_EQ(connected(), 1);
    DBConnection stranger(nullptr, true, 0);
    pool.checkin(&stranger);
    pool.checkin(nullptr);
    pool.checkin(pooled);
    pool.checkin(pooled);
    EXPECT_EQ(pool.availableCount(), 1);
    EXPECT_EQ(pool.usedCount(), 0);
}

TEST_F(Pool, MessagesCountAvailableBeforeUsed) {
    DBConnectionPool& pool = start(-1, 5);
    start(3, 3);
    const std::size_t before = log.text().size();
    EXPECT_THAT(log.text(),
                testing::StartsWith("Initializing connection pool with 0 connections (max "
                                    "connections: 5)\n\nConnection pool initialized, available "
                                    "connections in the pool: 0 (max connections: 5)\n\n"
                                    "DBConnectionPool already initialized\n\n"));
    pool.checkin(pool.checkout());
    DBConnectionPool::terminate();
    EXPECT_EQ(
        log.text().substr(before),
        "Obtaining a database connection... [available connections: 0, used connections: 0]\n\n"
        "Out of connections, expanding the connection pool\n\n"
        "Connected to the database: easdb\n\n"
        "Successfully obtained a database connection "
        "[available connections: 0, used connections: 1]\n\n"
        "Releasing a database connection... [available connections: 0, used connections: 1]\n\n"
        "Deleting the temporary DB connection\n\n"
        "Disconnected from the database\n\n"
        "Successfully released a database connection "
        "[available connections: 0, used connections: 0]\n\n"
        "Deleting the connection pool, available connections: 0, used connections: 0\n\n"
        "Connection pool deleted, available connections: 0, used connections: 0\n\n");
}

TEST_F(Pool, FailedConnectionsAreDroppedAndFailedExpansionGivesNull) {
    answer("SQLConnect", {SQL_SUCCESS, SQL_ERROR, SQL_SUCCESS});
    DBConnectionPool& pool = start(3, 3);
    EXPECT_EQ(pool.availableCount(), 2);
    EXPECT_NE(pool.checkout(), nullptr);
    EXPECT_NE(pool.checkout(), nullptr);
    answer("SQLConnect", {SQL_ERROR});
    int state = -1;
    EXPECT_EQ(pool.checkout(), nullptr);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(switched_back, switched);
    answer("SQLConnect", {SQL_ERROR});
    {
        TxObject none(&pool);
        SQLHANDLE handle = nullptr;
        EXPECT_THAT((std::vector<int>{none.commit(), none.rollback(), none.setAutoCommit(true),
                                      none.execStmt("x"), none.count("t", nullptr),
                                      none.fetch(nullptr), none.alloc(&handle)}),
                    testing::Each(SQL_ERROR));
        EXPECT_FALSE(none.isAutoCommit());
    }
    EXPECT_EQ(pool.usedCount(), 2);
    EXPECT_EQ(connected(), 2);  // terminate() takes those in use as well
    DBConnectionPool::terminate();
    EXPECT_THAT(log.text(), HasSubstr("pool, available connections: 0, used connections: 2\n\n"));
}

TEST_F(Pool, CleanupKeepsTheMinimum) {
    ::setenv("MIN_POOL_CONNECTIONS", "9", 1);  // only a properties file listens to it
    DBConnectionPool& pool = start(2, 0);
    pool.doCleanup();
    EXPECT_EQ(pool.availableCount(), 2);
    EXPECT_EQ(pool.minCount(), 2);
    DBConnection* const last = pool.checkout();
    pool.checkin(last);
    EXPECT_EQ(pool.checkout(), last) << "the warmest";
}

TEST_F(Pool, PropertiesFileConfiguresItUnlessTheEnvironmentSaysMore) {
    const std::pair<const char*, unsigned> rows[] = {
        {"30", 30}, {"31", 2}, {"0", 2}, {"many", 2}, {"1", 1}};
    const ScratchFile file(
        "database_name=easdb\ndatabase_user=u\ndatabase_schema_name=u\nmin_pool_connections=2\n"
        "max_pool_connections=40\npool_trace_level=3\n");
    for (const auto& [environment, expected] : rows) {
        ::setenv("MIN_POOL_CONNECTIONS", environment, 1);
        DBConnectionPool::init(file.path().c_str());
        const DBConnectionPool& pool = *DBConnectionPool::Instance();
        EXPECT_EQ(pool.minCount(), expected) << environment;
        EXPECT_EQ(pool.availableCount(), expected);
        EXPECT_EQ(pool.maxCount(), 40);
        EXPECT_EQ(pool.trcLevel(), 3);
        DBConnectionPool::terminate();
    }
    EXPECT_THAT(calls(), testing::Contains("SQLConnect(easdb, u, )"));
}

TEST_F(Pool, CancelledThreadTakesNoConnectionAway) {
    DBConnectionPool& pool = start(1, 1);
    bool returned = false;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        pool.checkout();
        returned = true;
    });
    thread.join();
    EXPECT_FALSE(returned);
    EXPECT_EQ(pool.usedCount(), 0);
    EXPECT_EQ(pool.availableCount(), 1);
}

}  // namespace
