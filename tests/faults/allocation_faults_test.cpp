// Every allocation failure, in the five functions, the pool and the readers.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <new>

#include "common/model/CoEfficients.h"
#include "common/model/CoEffsFromFile.h"
#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "db/base_class/DBConnectionPool.h"
#include "db/base_class/Properties.h"
#include "interface/LibraryState.h"
#include "interface/Locator.h"
#include "interface/TagRecord.h"
#include "tests/faults/Operations.h"
#include "tests/model/ModelFixtures.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/OwnTmp.h"

namespace {

using namespace eas::test;

class AllocationFaults : public OperationTest {
  protected:
    void SetUp() override {
        if (!allocations_are_watched)
            GTEST_SKIP() << "the sanitizer allocates";
        OperationTest::SetUp();
    }

    /// Runs an operation in which an allocation may fail.
    void try_operation(const OperationRow& row) {
        prepare(row.operation);
        const int code = run(row.operation);
        fail_allocation(0, false);
        EXPECT_EQ(manager_.live_handles(), 0);
        EXPECT_LE(code, 0);
        EXPECT_GE(code, row.lowest_code);
        if (!allocation_failed()) {
            EXPECT_EQ(code, EAS_OK);
        }
        expect_all_or_nothing(row.operation, code);
        expect_recovered(row.operation);
    }
};

INSTANTIATE_TEST_SUITE_P(On, AllocationFaults, both_engines(), engine_suffix);

TEST_P(AllocationFaults, EndInADocumentedCodeAndLeaveNothing) {
    long failed = 0;
    for (const OperationRow& row : operation_rows) {
        SCOPED_TRACE(row.name);
        for (int round = 0; round < 2; ++round)  // the first one fills what is kept
            try_operation(row);
        const auto descriptors = open_descriptors();
        failed += fail_each_allocation([&] { try_operation(row); });
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    std::cout << failed << " allocations failed\n";
}

TEST_P(AllocationFaults, LeaveNothingOfThePool) {
    const auto descriptors = open_descriptors();
    const auto use = [] {
        const WatchAllocations watch;
        DBConnectionPool::init("easdb", nullptr, nullptr, nullptr, 2, 2, nullptr, nullptr);
        DBConnectionPool& pool = *DBConnectionPool::Instance();
        std::array<DBConnection*, 3> cons{};  // the last one is a temporary one
        for (DBConnection*& con : cons)
            con = pool.checkout();
        for (DBConnection* con : cons)
            pool.checkin(con);
        pool.doCleanup();
    };
    use();
    DBConnectionPool::terminate();
    fail_each_allocation([&] {
        try {
            use();
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(allocation_failed());
        }
        fail_allocation(0, false);
        DBConnectionPool::terminate();
        EXPECT_EQ(manager_.live_handles(), 0);
        EXPECT_EQ(open_descriptors(), descriptors);
    });
}

/// Equally long arrays: a row that could not be stored as a whole is not stored.
bool is_whole(const CoEfficients& set) {
    const std::size_t rows = set.frequencyArray().size();
    return set.CoEfficientA_Array().size() == rows && set.CoEfficientF_Array().size() == rows;
}

struct Reader {
    const char* name;
    const char* content;
    /// Whether all was read; throws, or not, when memory is short.
    bool (*read)(std::FILE* file);
};

const Reader readers[] = {
    {"thresholds",
     "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
     "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2.4GHz -15\nEnd Min_Time\n",
     [](std::FILE* file) {
         CoEfficients set;
         for (const int frequency : {2000000, 2200000, 2400000})
             set.setArrayData(frequency, frequency > 2000000 ? 1.0 : 0.0, 0, 0, 0, 0, 0);
         EnergyPerfThreshold thresholds(&set, "/nonexistent/file");
         thresholds.parseThresholds(file);
         EXPECT_TRUE(!thresholds.isValid() || thresholds.getThresValue().size() == 3)
             << "valid, but not for every frequency";
         return thresholds.isValid();
     }},
    {"coefficients", "16:1,2,3,4,5,6\n20:1,2,3,4,5,6\n24:1,2,3,4,5,6\n",
     [](std::FILE* file) {
         CoEffsFromFile reader;
         CoEfficients set;
         try {
             reader.ReadCoefficients(file);
             return reader.VecToCoEfficients(&set) == 3;
         } catch (const std::bad_alloc&) {
             EXPECT_EQ(reader.getFrequencies().size(), reader.getFactorF().size());
             EXPECT_TRUE(is_whole(set));
             throw;
         }
     }},
    {"locator", "mysql:dbname=a-data-source-name-beyond-the-short-strings\n",
     [](std::FILE* file) { return !eas::parse_locator(file).empty(); }},
    {"properties", "database_name=a-data-source-name-beyond-the-short-strings\nuser=u\n",
     [](std::FILE* file) {
         const std::string path = "/proc/self/fd/" + std::to_string(::fileno(file));
         const std::size_t read = Properties(path.c_str()).getPropertiesMap().size();
         EXPECT_TRUE(read == 0 || read == 2) << read;
         return read == 2;
     }},
};

TEST(AllocationFaultsOfReaders, KeepNothingHalfRead) {
    if (!allocations_are_watched)
        GTEST_SKIP() << "the sanitizer allocates";
    for (const Reader& reader : readers) {
        SCOPED_TRACE(reader.name);
        fail_each_allocation([&] {
            const eas::UniqueFile file = eas_test::file_of(reader.content);
            bool complete = false;
            try {
                const WatchAllocations watch;
                complete = reader.read(file.get());
            } catch (const std::bad_alloc&) {
                complete = false;
            }
            EXPECT_TRUE(complete || allocation_failed());
        });
    }
}

class TraceStart : public AllocationFaults {
  protected:
    void SetUp() override {
        if (!own_tmp())  // where the debug log lies
            GTEST_SKIP() << "needs a private mount namespace";
        AllocationFaults::SetUp();
    }
};

INSTANTIATE_TEST_SUITE_P(On, TraceStart, ::testing::Values(Engine::sqlite), engine_suffix);

TEST_P(TraceStart, ThatLackedMemoryIsMadeUpForByTheNextQuery) {
    constexpr const char* log = "/tmp/.eas_lib_debug";
    ::setenv("DEBUG_THRESHOLD", "1", 1);
    int aborted = 0;
    for (int n = 1; n <= 12; ++n) {
        const pid_t child = ::fork();
        if (child == 0) {
            fail_allocation(n, false);
            run(Operation::query);
            fail_allocation(0, false);
            const bool well = allocation_failed() && run(Operation::query) == EAS_OK &&
                              read_file(log).find("Successfully executed") != std::string::npos;
            ::_exit(well ? 0 : 1);
        }
        const int status = exit_status(child);
        EXPECT_TRUE(status == 0 || status == 128 + SIGABRT) << "allocation " << n;
        aborted += status != 0 ? 1 : 0;
        std::filesystem::remove(log);
    }
    EXPECT_LE(aborted, 1) << "only the buffer of the trace is indispensable";
}

TEST(AllocationFaultsOfTheDebugLog, DoNotKeepItFromSayingThatMemoryIsShort) {
    if (!allocations_are_watched)
        GTEST_SKIP() << "the sanitizer allocates";
    ::setenv("DEBUG_THRESHOLD", "1", 1);
    EnergyTag tag;
    tag.set_array_data(2000000, 200.0, 0.0, 3600, 0.0);
    fail_each_allocation([&tag] {
        const ScratchFile log("");
        debug_fd = ::open(log.path().c_str(), O_WRONLY | O_CLOEXEC);
        std::vector<EnergyTag> tags{tag};
        eas::TagRecords records;
        bool filled = false;
        {
            const WatchAllocations watch;
            filled = records.fill(tags);
        }
        fail_allocation(0, false);
        EXPECT_EQ(log.text().find("Space allocation failed.\n") == std::string::npos, filled);
        ::close(debug_fd.exchange(-1));
    });
}

}  // namespace
