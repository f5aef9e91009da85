// Every allocation failure: the n-th allocation of the library fails, once and with all later ones,
// for every n until the operation finishes untouched.
#include <cstdio>
#include <iostream>
#include <new>

#include "common/CoEfficients.h"
#include "common/CoEffsFromFile.h"
#include "common/EnergyPerfThreshold.h"
#include "interface/Locator.h"
#include "tests/faults/Operations.h"

namespace {

using namespace eas::test;

class AllocationFaults : public OperationTest {
  protected:
    void SetUp() override {
        if (!allocations_are_watched)
            GTEST_SKIP() << "the sanitizer allocates";
        manager_.on_crossing(watch_elsewhere);
        OperationTest::SetUp();
    }

    /// Fails the n-th allocation of an operation; false when it was not met.
    bool try_fault(const OperationRow& row, long n, bool for_good) {
        SCOPED_TRACE(std::string(row.name) + ": allocation " + std::to_string(n) +
                     (for_good ? " and all later ones" : ""));
        prepare(row.operation);
        fail_allocation(n, for_good);
        const int code = run(row.operation);
        const bool met = allocation_failed();
        fail_allocation(0, false);
        EXPECT_EQ(manager_.live_handles(), 0);
        EXPECT_LE(code, 0);
        EXPECT_GE(code, row.lowest_code);
        if (!met) {
            EXPECT_EQ(code, EAS_OK);
        }
        expect_all_or_nothing(row.operation, code);
        expect_recovered(row.operation);
        EXPECT_EQ(live_blocks(), blocks_);
        EXPECT_EQ(open_descriptors(), descriptors_);
        return met;
    }

    FaultyDriverManager& manager_ = FaultyDriverManager::load();
    long blocks_ = 0;
    std::ptrdiff_t descriptors_ = 0;
};

INSTANTIATE_TEST_SUITE_P(On, AllocationFaults, both_engines(), engine_suffix);

TEST_P(AllocationFaults, EndInADocumentedCodeAndLeaveNothing) {
    int failed = 0;
    for (const OperationRow& row : operation_rows) {
        for (int round = 0; round < 2; ++round) {
            prepare(row.operation);
            ASSERT_EQ(run(row.operation), EAS_OK);
            expect_all_or_nothing(row.operation, EAS_OK);
            expect_recovered(row.operation);
        }
        blocks_ = live_blocks();
        descriptors_ = open_descriptors();
        for (const bool for_good : {false, true}) {
            long n = 1;
            while (try_fault(row, n, for_good) && !HasFailure())
                ++n;
            EXPECT_GT(n, 3) << row.name;
            failed += static_cast<int>(n - 1);
        }
    }
    std::cout << failed << " allocations failed\n";
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
         return thresholds.isValid() && thresholds.getThresValue().size() == 3;
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
};

TEST(AllocationFaultsOfReaders, KeepNothingHalfRead) {
    if (!allocations_are_watched)
        GTEST_SKIP() << "the sanitizer allocates";
    for (const Reader& reader : readers) {
        for (const bool for_good : {false, true}) {
            long n = 0;
            do {
                SCOPED_TRACE(std::string(reader.name) + " " + std::to_string(++n));
                std::string content = reader.content;
                std::FILE* file = ::fmemopen(content.data(), content.size(), "r");
                ASSERT_NE(file, nullptr);
                const long before = live_blocks();
                fail_allocation(n, for_good);
                bool complete = false;
                try {
                    const WatchAllocations watch;
                    complete = reader.read(file);
                } catch (const std::bad_alloc&) {
                    complete = false;
                }
                std::fclose(file);
                EXPECT_TRUE(complete || allocation_failed());
                EXPECT_EQ(live_blocks(), before);
            } while (allocation_failed() && !HasFailure());
            fail_allocation(0, false);
            EXPECT_GT(n, 1);
        }
    }
}

}  // namespace
