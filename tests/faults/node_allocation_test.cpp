// Every allocation failure of a sample, in a fake node: the n-th allocation fails, once and with
// all later ones, for every n until the sample is taken untouched. Later samples make none.
#include <unistd.h>

#include "common/node/EasMisc.h"
#include "tests/node/NodeTest.h"
#include "tests/support/AllocationFaults.h"
#include "tests/support/ChildProcess.h"

namespace eas::test {
namespace {

using NodeAllocationFaults = NodeTest;

enum Verdict { untouched, met, wrong_code, something_left, not_recovered };

/// In a process of its own, where nothing is sampled yet.
Verdict sample_with_fault(long n, bool for_good) {
    const std::string before = footprint();
    hwrusage usage{};
    fail_allocation(n, for_good);
    int code = 0;
    {
        const WatchAllocations watch;
        code = gethwrusage(1001, &usage);
    }
    const bool failed = allocation_failed();
    fail_allocation(0, false);
    if (code != 0 && (code != -1 || !failed))
        return wrong_code;
    if (gethwrusage(0, nullptr) != 0 || footprint() != before)
        return something_left;
    if (gethwrusage(1001, &usage) != 0)
        return not_recovered;
    if (gethwrusage(0, nullptr) != 0 || footprint() != before)
        return not_recovered;
    return failed ? met : untouched;
}

TEST_F(NodeAllocationFaults, EndInADocumentedCodeAndLeaveNothing) {
    if (!allocations_are_watched)
        GTEST_SKIP() << "the sanitizer allocates";
    for (const int model : {45, 47}) {
        FakeNode node(of_model(model));
        inside(node, [&] {
            for (const bool for_good : {false, true}) {
                int verdict = met;
                for (long n = 1; verdict == met; ++n) {
                    const pid_t child = ::fork();
                    if (child == 0)
                        ::_exit(sample_with_fault(n, for_good));
                    verdict = exit_status(child);
                    EXPECT_LE(verdict, met) << "allocation " << n << " for good: " << for_good;
                }
            }
        });
    }
}

TEST_F(NodeAllocationFaults, NoSampleAfterTheFirstOneAllocates) {
    for (const int model : {44, 45, 47}) {
        FakeNode node(of_model(model));
        inside(node, [] {
            hwrusage usage{};
            enrusage energy{};
            ASSERT_EQ(0, gethwrusage(1001, &usage));
            int second = -1;
            fail_allocation(1, false);
            {
                const WatchAllocations watch;
                second = gethwrusage(1001, &usage) + getenrusage(RUSAGE_SELF, &energy);
            }
            EXPECT_FALSE(allocation_failed());
            EXPECT_EQ(0, second);
            EXPECT_EQ(0, gethwrusage(0, nullptr));
        });
    }
}

}  // namespace
}  // namespace eas::test
