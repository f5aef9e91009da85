// The tables of sql/ behind the data sources of examples/odbc: what they accept, how they compare
// and order, and that they are read through their keys.
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <map>
#include <regex>
#include <vector>

#include "gmock/gmock.h"
#include "tests/support/ScratchDatabase.h"

namespace eas::test {
namespace {

class Schema : public DatabaseTest {
  protected:
    /// Stores a row of a tag; the other columns get harmless values.
    void store(const std::string& tag, const std::string& user, int frequency,
               const std::string& cluster = "c1", const std::string& job = "1.0") {
        plain().run("insert into TQVN_EnergyPolicyTag values (?,?,2600000,?," +
                        std::to_string(frequency) + ",?,250.0,-0.1,3600,0.05,1700000000)",
                    {tag, user, cluster, job});
    }

    /// 3 clusters of 20 users with 20 tags of 8 frequencies, highest first: enough for an engine to
    /// prefer a scan where no key serves.
    void fill() {
        const auto values = [](const std::string& prefix, int from, int to, int step) {
            std::string list;
            for (int i = from; i != to; i += step) {
                list += list.empty() ? "(select " : " union all select ";
                list += prefix + std::to_string(i) + (prefix.empty() ? "" : "'");
                list += " v";
            }
            return list + ") ";
        };
        plain().run(
            "insert into TQVN_EnergyPolicyTag select t.v,u.v,2600000,c.v,f.v,'j',1,1,1,1,1 from " +
            values("", 3300000, 2500000, -100000) + "f, " + values("'t", 19, -1, -1) + "t, " +
            values("'u", 0, 20, 1) + "u, " + values("'c", 0, 3, 1) + "c");
        ASSERT_EQ(database().rows("TQVN_EnergyPolicyTag"), 9600);
    }

    /// Runs a statement and takes it back; how many rows the engine met on a walk from one end of
    /// the table or of a key to the other, and rows (SQLite: times) that it had to sort.
    std::int64_t walked_or_sorted(const std::string& statement) {
        return GetParam() == Engine::sqlite ? sqlite_work(statement) : mariadb_work(statement);
    }

  private:
    std::int64_t sqlite_work(const std::string& statement) {
        sqlite3* file = nullptr;
        sqlite3_stmt* prepared = nullptr;
        EXPECT_EQ(sqlite3_open((database().folder() / "easdb.sqlite").c_str(), &file), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(file, "begin", nullptr, nullptr, nullptr), SQLITE_OK);
        EXPECT_EQ(sqlite3_prepare_v2(file, statement.c_str(), -1, &prepared, nullptr), SQLITE_OK);
        while (sqlite3_step(prepared) == SQLITE_ROW) {
        }
        const int work = sqlite3_stmt_status(prepared, SQLITE_STMTSTATUS_FULLSCAN_STEP, 0) +
                         sqlite3_stmt_status(prepared, SQLITE_STMTSTATUS_SORT, 0);
        sqlite3_finalize(prepared);
        EXPECT_EQ(sqlite3_exec(file, "rollback", nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(file);
        return work;
    }

    std::int64_t mariadb_work(const std::string& statement) {
        plain().run("flush status");
        plain().run("start transaction");
        plain().run(statement);
        const auto work = plain().number(
            "select sum(variable_value) from information_schema.session_status where variable_name "
            "in ('Handler_read_first', 'Handler_read_last', 'Handler_read_rnd_next', 'Sort_rows')");
        plain().run("rollback");
        return work;
    }
};
INSTANTIATE_TEST_SUITE_P(On, Schema, both_engines(), engine_suffix);

/// Every combination of the names that the library may ask for. No row has the
/// frequency of the last two: where nearly all rows match, an engine rightly scans.
const std::array conditions{
    "cluster_name=\"c1\" and default_frequency=2600000",
    "cluster_name=\"c1\" and user_name=\"u7\" and default_frequency=2600000",
    "cluster_name=\"c1\" and default_frequency=2600000 and energy_tag_name=\"t3\"",
    "cluster_name=\"c1\" and user_name=\"u7\" and default_frequency=2600000 and "
    "energy_tag_name=\"t3\"",
    "cluster_name=\"c1\"",
    "cluster_name=\"c1\" and energy_tag_name=\"t3\"",
    "cluster_name=\"c1\" and user_name=\"u7\"",
    "default_frequency=2500000",
    "user_name=\"u7\" and default_frequency=2500000 and energy_tag_name=\"t3\"",
};

TEST_P(Schema, NoStatementWalksThroughTheTable) {
    fill();
    database().seed_coefficients("c1", 2600000, 1200000, 100000, 16);
    if (GetParam() == Engine::mariadb)
        plain().run("analyze table TQVN_EnergyPolicyTag, TQVN_EnergyCoEfficients");
    for (const std::string condition : conditions) {
        for (const char* verb : {"select * from", "delete from"}) {
            const std::string statement = verb + (" TQVN_EnergyPolicyTag  where " + condition);
            EXPECT_EQ(walked_or_sorted(statement), 0) << statement;
        }
    }
    EXPECT_EQ(walked_or_sorted("select * from TQVN_EnergyCoEfficients  where cluster_name=\"c1\" "
                               "and default_frequency=2600000 order by frequency asc"),
              0);
    EXPECT_GE(walked_or_sorted("select * from TQVN_EnergyPolicyTag where predict_power > 2"), 9599)
        << "the check must see a scan";
    EXPECT_EQ(database().rows("TQVN_EnergyPolicyTag"), 9600);
}

TEST_P(Schema, RowsOfATagComeInAscendingFrequencyOrder) {
    fill();
    for (const char* condition : conditions) {
        std::map<std::string, std::vector<int>> tags;
        std::string where = std::string(" where ") + condition;
        if (const auto at = where.find("2500000"); at != std::string::npos)
            where[at + 1] = '6';
        for (const auto& row : plain().run("select * from TQVN_EnergyPolicyTag " + where)) {
            tags[row.at(0) + row.at(1) + row.at(3)].push_back(std::stoi(row.at(4)));
        }
        ASSERT_FALSE(tags.empty());
        for (const auto& [tag, frequencies] : tags) {
            ASSERT_EQ(frequencies.size(), 8U) << where;
            ASSERT_TRUE(std::is_sorted(frequencies.begin(), frequencies.end())) << tag << where;
        }
    }
}

TEST_P(Schema, ATextThatIsTooLongIsRefused) {
    const std::string two_bytes = "\xc3\xa4";
    std::string half;
    for (int i = 0; i < 128; ++i)
        half += two_bytes;
    store(std::string(256, 't'), half, 1, std::string(40, 'c'), std::string(1024, 'j'));
    EXPECT_EQ(plain().run("select user_name from TQVN_EnergyPolicyTag")[0][0], half);
    EXPECT_THROW(store(std::string(257, 't'), "u", 2), std::runtime_error);
    EXPECT_THROW(store("t", half + "x", 2), std::runtime_error);
    EXPECT_THROW(store("t", "u", 2, std::string(41, 'c')), std::runtime_error);
    EXPECT_THROW(store("t", "u", 2, "c", std::string(1025, 'j')), std::runtime_error);
    EXPECT_EQ(database().rows("TQVN_EnergyPolicyTag"), 1);
    const auto store_model = [this](std::size_t length) {
        database().seed_coefficients(std::string(length, 'c'), 2600000, 1200000, 100000, 1);
    };
    store_model(40);
    EXPECT_THROW(store_model(40), std::runtime_error) << "the same row again";
    EXPECT_THROW(store_model(41), std::runtime_error);
}

TEST(SchemaGrants, TheSchedulerCanDoWhatItNeedsAndNothingElse) {
    if (const auto why = ScratchDatabase::missing(Engine::mariadb))
        GTEST_SKIP() << *why;
    ScratchDatabase database(Engine::mariadb);
    std::string grants = source_file("sql/mariadb-grants.sql");
    const std::map<std::string, std::string> placeholders{
        {"@DATABASE@", database.schema()},
        {"@HOSTS@", "localhost"},
        {"@SCHEDULER_PASSWORD@", "s"},
        {"@NODE_PASSWORD@", "n"},
        {"@ADMIN_PASSWORD@", "a"},
        // Accounts belong to the server, which other tests use at the same time.
        {"eas_scheduler", database.schema() + "s"},
        {"eas_node", database.schema() + "n"},
        {"eas_admin", database.schema() + "a"}};
    for (const auto& [placeholder, text] : placeholders)
        grants = std::regex_replace(grants, std::regex(placeholder), text);
    database.plain().run_script(grants);
    database.seed_coefficients("c", 2600000, 1200000, 100000, 3);

    PlainOdbc scheduler("easdb", database.schema() + "s", "s");
    EXPECT_EQ(scheduler.number("select count(*) from TQVN_EnergyCoEfficients"), 3);
    scheduler.run("insert into TQVN_EnergyPolicyTag values ('t','u',1,'c',1,'j',1,1,1,1,1)");
    EXPECT_EQ(scheduler.number("select count(*) from TQVN_EnergyPolicyTag"), 1);
    PlainOdbc node("easdb", database.schema() + "n", "n");
    EXPECT_EQ(node.number("select count(*) from TQVN_EnergyCoEfficients"), 3);
    EXPECT_EQ(node.number("select count(*) from TQVN_EnergyPolicyTag"), 1);
    node.run("insert into TQVN_EnergyPolicyTag values ('n','u',1,'c',1,'j',1,1,1,1,1)");
    for (const char* refused :
         {"delete from TQVN_EnergyPolicyTag", "update TQVN_EnergyPolicyTag set frequency=1",
          "insert into TQVN_EnergyCoEfficients values (2,1,'c',1,1,1,1,1,1)"})
        EXPECT_THROW(node.run(refused), std::runtime_error) << refused;
    scheduler.run("delete from TQVN_EnergyPolicyTag where user_name=\"u\"");
    for (const char* refused :
         {"update TQVN_EnergyPolicyTag set frequency=1", "delete from TQVN_EnergyCoEfficients",
          "drop table TQVN_EnergyPolicyTag", "create table t (i int)",
          "select * from mysql.user"}) {
        EXPECT_THROW(scheduler.run(refused), std::runtime_error) << refused;
    }
    PlainOdbc admin("easdb", database.schema() + "a", "a");
    admin.run("insert into TQVN_EnergyCoEfficients values (2,1,'c',1,1,1,1,1,1)");
    for (const std::string table : {"TQVN_EnergyCoEfficients", "TQVN_EnergyPolicyTag"})
        for (const std::string verb : {"update ", "select * from ", "delete from "})
            admin.run(verb + table + (verb == "update " ? " set frequency=frequency+9" : ""));
    admin.run("insert into TQVN_EnergyPolicyTag values ('n','u',1,'c',1,'j',1,1,1,1,1)");
    EXPECT_THROW(admin.run("drop table TQVN_EnergyPolicyTag"), std::runtime_error);
    for (const char* account : {"s", "n", "a"})
        database.plain().run_script("drop user '" + database.schema() + account +
                                    "'@'localhost';\n");
}

}  // namespace
}  // namespace eas::test
