// Every allocation failure of a sample, in a fake node: the n-th allocation fails, once and with
// all later ones, for every n until the sample is taken untouched. Later samples make none.
#include <unistd.h>

#include "common/node/EasMisc.h"
#include "common/node/EnergyUtil.h"
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

TEST_F(NodeAllocationFaults, OfAListLeaveItAsItWas) {
    if (!allocations_are_watched)
        GTEST_SKIP() << "the sanitizer allocates";
    FakeNode node(of_model(45));
    inside(node, [] {
        const std::vector<double> x1{0, 1, 0, 1, 2, 0, 2}, x2{0, 0, 1, 1, 0, 2, 2};
        fail_each_allocation([&] {
            std::vector<int> cpus, steps;
            std::vector<double> fit;
            int codes[4];
            EnergyUtil::nominal_frequency = 0;
            {
                const WatchAllocations watch;
                codes[0] = EnergyUtil::get_all_cpu_ids(cpus);
                codes[1] = EnergyUtil::get_available_freqs(steps, 0);
                codes[2] = EnergyUtil::cal_coefficients(x1, x1, x2, fit);
                codes[3] = EnergyUtil::get_nominal_freq(0);
            }
            EXPECT_EQ(codes[0] == 1 ? 16U : 0U, cpus.size());
            EXPECT_EQ(codes[1] == 1 ? 5U : 0U, steps.size());
            EXPECT_EQ(codes[2] == 1 ? 3U : 0U, fit.size());
            EXPECT_TRUE(codes[3] == 2667000 || (codes[3] == -1 && allocation_failed()));
        });
    });
}

}  // namespace
}  // namespace eas::test
