// The five functions on real databases, as a scheduler calls them.
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyTag.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/DB_Ptr.h"
#include "gmock/gmock.h"
#include "interface/LibraryState.h"
#include "interface/TagStore.h"
#include "interface/interface.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/SchedulerCalls.h"

namespace {

using namespace eas::test;
using Scheduler = SchedulerTest;

TEST(SchedulerWithoutDatabase, SaysThatThereIsNoDataSource) {
    ::setenv("ODBCINI", "/nonexistent/odbc.ini", 1);
    ::setenv("ODBCSYSINI", "/nonexistent", 1);
    EXPECT_EQ(eas_initialize(const_cast<char*>("c1"), default_frequency, const_cast<char*>("/")),
              EAS_NO_CONNECTION);
    EXPECT_EQ(generate("anna", "t"), EAS_NOT_INITIALIZED);
}

INSTANTIATE_TEST_SUITE_P(On, Scheduler, both_engines(), engine_suffix);

TEST_P(Scheduler, TakesAJobFromItsCountersToASelectedFrequency) {
    ASSERT_EQ(initialize(), EAS_OK);
    ASSERT_EQ(generate("anna", "cfd"), EAS_OK);
    EXPECT_EQ(generate("anna", "cfd"), EAS_TAG_EXISTS);
    EXPECT_EQ(generate("bert", "cfd"), EAS_OK);

    // By hand: cycles per instruction 2, one billion instructions and 3 GB in a second.
    const Tags tags("anna", "cfd");
    ASSERT_EQ(tags.status, EAS_OK);
    ASSERT_EQ(tags.count, 1);
    const energyPolicyTag_t& tag = tags.records[0];
    EXPECT_STREQ(tag.energy_tag_name, "cfd");
    EXPECT_STREQ(tag.user_name, "anna");
    EXPECT_STREQ(tag.cluster_name, "c1");
    EXPECT_STREQ(tag.job_id, "42.0");
    EXPECT_EQ(tag.default_frequency, default_frequency);
    ASSERT_EQ(tag.num_freq, 4);
    const struct {
        int frequency;
        double power;
        double saving;
        int time;
        double degrade;
    } expected[] = {{1600000, 110.0, -0.395, 1100, 0.1},
                    {1800000, 170.0, -0.12195, 1033, 0.033},
                    {2000000, 200.0, 0.0, 1000, 0.0},
                    {2400000, 300.0, 0.2495, 833, -0.167}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(tag.frequencies[i], expected[i].frequency);
        EXPECT_NEAR(tag.predict_power[i], expected[i].power, 1e-12);
        EXPECT_NEAR(tag.energy_saving_pct[i], expected[i].saving, 1e-12);
        EXPECT_EQ(tag.predict_elapse_time[i], expected[i].time);
        EXPECT_NEAR(tag.perf_degrad_pct[i], expected[i].degrade, 1e-12);
    }

    std::vector<EnergyTag> read;
    read_tags_from_db(DB_Ptr(create_db_connection()).get(), "c1", default_frequency, "anna", "cfd",
                      read);
    EXPECT_NEAR(static_cast<double>(read.at(0).create_time()),
                static_cast<double>(std::time(nullptr)), 60);

    const Selection energy = select("anna", "cfd", "minimize_energy");
    EXPECT_EQ(energy.status, EAS_OK);
    EXPECT_EQ(energy.frequency, 1800000);
    EXPECT_NEAR(energy.time_var, 0.033, 1e-12);
    const Selection time = select("anna", "cfd", "minimize_time");
    EXPECT_EQ(time.status, EAS_OK);
    EXPECT_EQ(time.frequency, 2400000);
    EXPECT_NEAR(time.time_var, -0.167, 1e-12);

    const Removed removed = remove_tags("anna", "cfd");
    EXPECT_EQ(removed.status, EAS_OK);
    EXPECT_EQ(removed.names, (std::vector<std::string>{"anna/cfd"}));
    EXPECT_EQ(tag_rows(), 4);  // bert's
    EXPECT_EQ(select("anna", "cfd", "minimize_time").status, EAS_NO_UNIQUE_TAG);
}

TEST_P(Scheduler, QueriesAndRemovesSeveralTagsAtOnce) {
    ASSERT_EQ(initialize(), EAS_OK);
    for (const char* tag : {"t2", "t1", "T1"}) {
        ASSERT_EQ(generate("anna", tag), EAS_OK);
        ASSERT_EQ(generate("bert", tag), EAS_OK);
    }
    const Tags all(nullptr, nullptr);
    EXPECT_EQ(all.status, EAS_OK);
    EXPECT_EQ(all.count, 6);
    for (int i = 0; i < all.count; ++i) {
        ASSERT_EQ(all.records[i].num_freq, 4);
        for (int f = 1; f < 4; ++f)
            EXPECT_LT(all.records[i].frequencies[f - 1], all.records[i].frequencies[f]);
    }
    EXPECT_EQ(Tags("", "t1").count, 2);
    EXPECT_EQ(Tags(nullptr, "t3").count, 0);
    EXPECT_EQ(Tags(nullptr, nullptr, "c2").count, 0);
    EXPECT_EQ(Tags(nullptr, nullptr, "c1", 1600000).count, 0);
    EXPECT_EQ(select("anna", "", "minimize_time").status, EAS_NO_UNIQUE_TAG);

    EXPECT_EQ(remove_tags("anna", "t3").status, EAS_OK);
    const Removed removed = remove_tags("anna", nullptr);
    EXPECT_EQ(removed.status, EAS_OK);
    EXPECT_EQ(removed.names, (std::vector<std::string>{"anna/T1", "anna/t1", "anna/t2"}));
    EXPECT_EQ(tag_rows(), 12);
}

TEST_P(Scheduler, ReadsModelAndTagsInWhateverOrderTheTablesGiveTheirRows) {
    const auto reorder = [this](const std::string& table, const std::string& order) {
        plain().run("create table kept as select * from " + table + " order by " + order);
        plain().run("drop table " + table);
        plain().run("alter table kept rename to " + table);  // it has no key
    };
    reorder("TQVN_EnergyCoEfficients", "frequency desc");
    ASSERT_EQ(initialize(), EAS_OK);
    for (const char* tag : {"t1", "t2", "t3"})
        ASSERT_EQ(generate("anna", tag), EAS_OK);
    reorder("TQVN_EnergyPolicyTag",  // the three forth, back, and forth again
            "frequency, case frequency when 1800000 then '' else energy_tag_name end, "
            "energy_tag_name desc");
    EXPECT_EQ(Tags("anna", nullptr).count, 3);
    EXPECT_EQ(global_coeffs->frequencyArray(),
              (std::vector<int>{1600000, 1800000, 2000000, 2400000}));
}

TEST_P(Scheduler, PassesOverRowsOfOthersWhereCaseIsIgnoredAndRefusesToRemoveThem) {
    const std::string text = GetParam() == Engine::sqlite
                                 ? " varchar(256) collate nocase"
                                 : " varchar(256) character set utf8mb4 collate utf8mb4_general_ci";
    plain().run("drop table TQVN_EnergyPolicyTag");
    plain().run("create table TQVN_EnergyPolicyTag (energy_tag_name" + text + ", user_name" + text +
                ", default_frequency int, cluster_name" + text +
                ", frequency int, job_id varchar(1024), predict_power double, energy_saving_pct "
                "double, predict_elapse_time int, perf_degrad_pct double, create_time bigint)");
    ASSERT_EQ(initialize(), EAS_OK);
    for (const char* user : {"anna", "ANNA"})
        ASSERT_EQ(generate(user, "t"), EAS_OK) << user;
    ASSERT_EQ(generate("anna", "own"), EAS_OK);
    EXPECT_EQ(Tags("anna", "t").count, 1);
    EXPECT_EQ(Tags("anna", nullptr).count, 2);
    EXPECT_EQ(select("ANNA", "t", "minimize_time").status, EAS_OK);
    EXPECT_EQ(remove_tags("anna", "t").status, EAS_REMOVE_FAILED);
    EXPECT_EQ(remove_tags("Anna", "t").names.size(), 0U) << "has none";
    EXPECT_EQ(tag_rows(), 12);
    EXPECT_EQ(remove_tags("anna", "own").names, (std::vector<std::string>{"anna/own"}));
}

class SchedulerArguments : public SchedulerTest {};
INSTANTIATE_TEST_SUITE_P(On, SchedulerArguments, ::testing::Values(Engine::sqlite), engine_suffix);

TEST_P(SchedulerArguments, AreRefusedBeforeTheStateIsLookedAt) {
    double counters[] = {1.0, 1.0, 1.0};
    const auto refused = [&](const char* cluster, int frequency, const char* user, const char* tag,
                             double* hw, const char* job, int elapsed, double power) {
        return eas_generate_tag(const_cast<char*>(cluster), frequency, const_cast<char*>(user),
                                const_cast<char*>(tag), hw, const_cast<char*>(job), elapsed, power);
    };
    int n = 0;
    energyPolicyTag_t* tags = nullptr;
    char** list = nullptr;
    for (const int state : {EAS_NOT_INITIALIZED, EAS_BAD_ARGUMENT}) {
        for (const char* none : {static_cast<const char*>(nullptr), ""}) {
            EXPECT_EQ(refused(none, 1, "u", "t", counters, "j", 1, 1.0), EAS_BAD_ARGUMENT);
            EXPECT_EQ(refused("c1", 1, none, "t", counters, "j", 1, 1.0), EAS_BAD_ARGUMENT);
            EXPECT_EQ(refused("c1", 1, "u", none, counters, "j", 1, 1.0), EAS_BAD_ARGUMENT);
            EXPECT_EQ(refused("c1", 1, "u", "t", counters, none, 1, 1.0), EAS_BAD_ARGUMENT);
        }
        EXPECT_EQ(refused("c1", 0, "u", "t", counters, "j", 1, 1.0), EAS_BAD_ARGUMENT);
        EXPECT_EQ(refused("c1", 1, "u", "t", nullptr, "j", 1, 1.0), EAS_BAD_ARGUMENT);
        EXPECT_EQ(refused("c1", 1, "u", "t", counters, "j", 0, 1.0), EAS_BAD_ARGUMENT);
        EXPECT_EQ(refused("c1", 1, "u", "t", counters, "j", 1, 0.00000009), EAS_BAD_ARGUMENT);
        // Everything is in order but the frequency: an uninitialised library says so first.
        EXPECT_EQ(refused("c1", 1, "u", "t", counters, "j", 1, 0.0000001), state);

        const auto or_null = [](bool there, auto* argument) { return there ? argument : nullptr; };
        double change = 0;
        for (int none = 0; none < 7; ++none) {  // the one argument that is missing
            char* const cluster = or_null(none != 0, text("c1"));
            const int khz = none != 1 ? 1 : 0;
            int codes[] = {EAS_BAD_ARGUMENT, EAS_BAD_ARGUMENT, EAS_BAD_ARGUMENT};
            codes[0] = eas_auto_select_frequency(
                cluster, khz, or_null(none != 2, text("u")), or_null(none != 3, text("t")),
                or_null(none != 4, text("minimize_time")), or_null(none != 5, &n),
                or_null(none != 6, &change));
            if (none < 4)
                codes[1] = eas_query_tag(cluster, khz, nullptr, nullptr, or_null(none != 2, &n),
                                         or_null(none != 3, &tags));
            if (none < 5)
                codes[2] = eas_remove_tag(cluster, khz, nullptr, nullptr, or_null(none != 2, &n),
                                          or_null(none != 3, &list), or_null(none != 4, &list));
            EXPECT_THAT(codes, ::testing::Each(EAS_BAD_ARGUMENT)) << none;
        }
        EXPECT_EQ(select("u", "t", "Minimize_Energy").status, EAS_BAD_ARGUMENT);
        if (state == EAS_NOT_INITIALIZED) {
            n = 7;
            energyPolicyTag_t some;
            tags = &some;
            EXPECT_EQ(eas_query_tag(text("c1"), 1, nullptr, nullptr, &n, &tags), state);
            EXPECT_EQ(n, 0);
            EXPECT_EQ(tags, nullptr);
            EXPECT_EQ(select("u", "t", "minimize_time").status, state);
            EXPECT_EQ(remove_tags("u", "t").status, state);
            ASSERT_EQ(initialize(), EAS_OK);
        }
    }
    const Selection none = select("u", "t", "minimize_time");
    EXPECT_EQ(none.status, EAS_NO_UNIQUE_TAG);
    EXPECT_EQ(none.frequency, -7);  // outputs are not written on a failure
    EXPECT_EQ(none.time_var, -7.0);
}

TEST_P(Scheduler, AFailedInitialisationLeavesNothingInitialised) {
    const auto is_uninitialised = [] {
        return global_coeffs == nullptr && global_threshold == nullptr &&
               generate("anna", "t") == EAS_NOT_INITIALIZED;
    };
    const auto fails_with = [&](int code) {
        const int status = initialize();
        return status == code && is_uninitialised();
    };
    ASSERT_EQ(initialize(), EAS_OK);
    EXPECT_EQ(eas_initialize(text("c1"), 0, text(threshold_file_)), EAS_BAD_ARGUMENT);
    EXPECT_EQ(eas_initialize(nullptr, 1, text(threshold_file_)), EAS_BAD_ARGUMENT);
    EXPECT_EQ(eas_initialize(text("c1"), 1, nullptr), EAS_BAD_ARGUMENT);
    EXPECT_TRUE(is_uninitialised());
    EXPECT_EQ(initialize("nowhere"), EAS_NO_COEFFICIENTS);
    EXPECT_EQ(initialize("c1", 1600000), EAS_NO_COEFFICIENTS);
    EXPECT_EQ(initialize("\" or \"\"=\"", 2000000), EAS_NO_COEFFICIENTS);
    write_thresholds("# nothing\n\n");
    EXPECT_TRUE(fails_with(EAS_THRESHOLDS_COMMENTED_OUT));
    write_thresholds("Begin Min_Energy\n");
    EXPECT_TRUE(fails_with(EAS_BAD_THRESHOLD_FILE));
    std::filesystem::remove(threshold_file_);
    EXPECT_TRUE(fails_with(EAS_THRESHOLDS_COMMENTED_OUT));  // like a file without an entry
}

OdbcEntryPoints real;
char* bound_name;  // of the coefficient row: the third column
char first_of_name;

TEST_P(Scheduler, TakesACoefficientRowOfNoClusterAndNoneOfAnother) {
    ASSERT_EQ(initialize(), EAS_OK);
    OdbcEntryPoints& odbc = *DBLibrary::get();
    real = odbc;
    odbc.SQLBindCol = [](SQLHSTMT statement, SQLUSMALLINT position, SQLSMALLINT type,
                         SQLPOINTER value, SQLLEN size, SQLLEN* indicator) {
        if (position == 3)
            bound_name = static_cast<char*>(value);
        return real.SQLBindCol(statement, position, type, value, size, indicator);
    };
    odbc.SQLFetch = [](SQLHSTMT statement) {
        const SQLRETURN rc = real.SQLFetch(statement);
        *bound_name = first_of_name;
        return rc;
    };
    for (const bool taken : {true, false}) {
        first_of_name = taken ? '\0' : 'C';
        const DB_Ptr connection(create_db_connection());
        CoEfficients read;
        EXPECT_EQ(read_coeffs_from_db(connection.get(), "c1", default_frequency, read),
                  taken ? 0 : 1);
        EXPECT_EQ(read.total_frequencies(), taken ? 4 : 0);
    }
}

TEST_P(Scheduler, RefusesAJobThatAllowsNoPrediction) {
    ASSERT_EQ(initialize(), EAS_OK);
    double no_instructions[] = {1e12, 0.0, 1e12};
    EXPECT_EQ(eas_generate_tag(text("c1"), default_frequency, text("u"), text("t"), no_instructions,
                               text("j"), 100, 100.0),
              EAS_TAG_NOT_AVAILABLE);
    EXPECT_EQ(generate("u", "t", 200.0, default_frequency, 1), EAS_TAG_NOT_AVAILABLE);  // < 1 s
    EXPECT_EQ(generate("u", "t", 200.0, 1600000), EAS_BAD_ARGUMENT);
    EXPECT_EQ(tag_rows(), 0);
}

TEST_P(Scheduler, NoNameReachesAnotherUsersTags) {
    ASSERT_EQ(initialize(), EAS_OK);
    ASSERT_EQ(generate("victim", "t"), EAS_OK);
    ASSERT_EQ(generate("victim ", "t "), EAS_OK);
    // Names that change the condition, and names that an engine takes for a column.
    for (const std::string name :
         {"x\" or \"1\"=\"1", "\"", "x\\", "\\", "\\\\\\", "a\\\"", "\\\" or 1=1 -- "}) {
        EXPECT_EQ(Tags(text(name), "t").status, EAS_QUERY_FAILED) << name;
        EXPECT_EQ(Tags("victim", text(name)).status, EAS_QUERY_FAILED) << name;
        EXPECT_EQ(Tags("victim", "t", text(name)).status, EAS_QUERY_FAILED) << name;
        EXPECT_EQ(remove_tags(text(name), "t").status, EAS_REMOVE_FAILED) << name;
        EXPECT_EQ(select(text(name), "t", "minimize_time").status, EAS_NO_UNIQUE_TAG) << name;
    }
    for (const char* name :
         {"user_name", "USER_NAME", "VICTIM", "victim  ", "vict%", "x' or 1=1 --"}) {
        EXPECT_EQ(Tags(name, nullptr).count, 0) << name;
        EXPECT_TRUE(remove_tags(name, "t").names.empty()) << name;
        EXPECT_TRUE(remove_tags(name, nullptr).names.empty()) << name;
    }
    EXPECT_TRUE(remove_tags("victim", "energy_tag_name").names.empty());
    EXPECT_EQ(tag_rows(), 8);
    EXPECT_EQ(remove_tags("victim", nullptr).names, (std::vector<std::string>{"victim/t"}));
}

TEST_P(Scheduler, KeepsNamesByteForByteAndCutsThemToTheirFields) {
    ASSERT_EQ(initialize(), EAS_OK);
    const std::vector<std::string> names{
        "a",       "a ",        "a  ",          "A",          "\xc3\xa4", "\xc3\x84",
        "\xe4",    "a\xcc\x88", "\xff\xfe\x80", "SITE\\anna", "SITEanna", "SITE\\\\anna",
        "it's",    "a?b",       "\\?",          "{fn now()}", "{d '",     "-- x",
        "/* x",    "x;--",      "%s%n",         "%",          "_",        "\x81\x8d\x8f\x90\x9d",
        "\xbf\\'", " t ",       "\t\n\x01\x1a", "0",          "00",       "1e0",
        "a\\\\",   "\\\\\\\\",  "\xff`;--"};
    for (const std::string& name : names)
        ASSERT_EQ(generate(name, name), EAS_OK) << name;
    for (const std::string& name : names) {
        const Tags tags(text(name), text(name));
        ASSERT_EQ(tags.count, 1) << name;
        EXPECT_EQ(tags.records[0].user_name, name);
        EXPECT_EQ(tags.records[0].energy_tag_name, name);
        EXPECT_EQ(generate(name, name), EAS_TAG_EXISTS) << name;
        EXPECT_EQ(remove_tags(text(name), text(name)).names.size(), 1U) << name;
    }
    ASSERT_EQ(generate("u", "half %% done"), EAS_OK);
    EXPECT_STREQ(Tags("u", "half % done").records[0].energy_tag_name, "half % done");
    const std::string long_name(300, 'n');
    ASSERT_EQ(generate(long_name, long_name), EAS_OK);
    EXPECT_EQ(Tags(text(long_name), nullptr).count, 0);
    EXPECT_EQ(Tags(text(long_name.substr(0, 256)), text(long_name.substr(0, 256))).count, 1);
    // It is not found under its full length, and its second copy is refused by the key.
    EXPECT_EQ(generate(long_name, long_name), EAS_STORE_FAILED);
    EXPECT_EQ(tag_rows(), 8);
}

TEST_P(Scheduler, TwoProcessesThatGenerateTheSameTagStoreItOnce) {
    constexpr int rounds = 20;
    void* const shared = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto& arrived = *new (shared) std::atomic<int>(0);
    std::array<pid_t, 2> children{};
    for (pid_t& child : children) {
        child = ::fork();
        if (child == 0) {
            int stored = initialize() == EAS_OK ? 0 : 100;
            for (int i = 0; i < rounds; ++i) {
                ++arrived;
                while (arrived < 2 * (i + 1))  // both begin at once
                    ::sched_yield();
                stored += generate("u", "t" + std::to_string(i)) == EAS_OK ? 1 : 0;
            }
            ::_exit(stored);
        }
    }
    int stored = 0;
    for (const pid_t child : children)
        stored += exit_status(child);
    ::munmap(shared, sizeof(std::atomic<int>));
    EXPECT_EQ(stored, rounds);
    EXPECT_EQ(tag_rows(), 4 * rounds);  // each is whole
}

}  // namespace
