// Every allocation failure of the node's class, in a fake node.
#include "common/node/EnergyUtil.h"
#include "tests/node/NodeTest.h"
#include "tests/support/AllocationFaults.h"

namespace eas::test {
namespace {

using EnergyUtilAllocationFaults = NodeTest;

struct Row {
    const char* name;
    /// The documented 1 or -1; 0 where a success left something out.
    int (*call)();
};

const std::vector<double> x1{0, 1, 0, 1, 2, 0, 2};
const std::vector<double> x2{0, 0, 1, 1, 0, 2, 2};

const Row rows[] = {
    {"get_all_cpu_ids",
     [] {
         std::vector<int> cpus;
         const int code = EnergyUtil::get_all_cpu_ids(cpus);
         return cpus.size() == (code == 1 ? 16U : 0U) ? code : 0;
     }},
    {"get_available_freqs",
     [] {
         std::vector<int> steps;
         const int code = EnergyUtil::get_available_freqs(steps, 0);
         return steps.size() == (code == 1 ? 5U : 0U) ? code : 0;
     }},
    {"get_nominal_freq",
     [] {
         EnergyUtil::nominal_frequency = 0;
         const int frequency = EnergyUtil::get_nominal_freq(0);
         return frequency == 2667000 ? 1 : frequency;
     }},
    {"get_node_threads",
     [] {
         EnergyUtil::cpu_threads_num = 0;
         const int threads = EnergyUtil::get_node_threads(0);
         return threads == 16 ? 1 : threads;
     }},
    {"set_all_cpu_freqs", [] { return EnergyUtil::set_all_cpu_freqs(1867000); }},
    {"set_all_cpu_freqs_cap",
     [] { return EnergyUtil::set_all_cpu_freqs_cap(1867000, CPU_FREQ_MAX); }},
    {"set_all_cpu_governors",
     [] {
         char governor[] = "performance";
         return EnergyUtil::set_all_cpu_governors(governor);
     }},
    {"cal_coefficients",
     [] {
         std::vector<double> fit;
         const int code = EnergyUtil::cal_coefficients(x1, x1, x2, fit);
         return fit.size() == (code == 1 ? 3U : 0U) ? code : 0;
     }},
};

TEST_F(EnergyUtilAllocationFaults, EndInADocumentedCodeAndLeaveNothing) {
    if (!allocations_are_watched)
        GTEST_SKIP() << "the sanitizer allocates";
    FakeNode node(of_model(45));
    inside(node, [&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.name);
            fail_each_allocation([&] {
                const std::string before = footprint();
                int code = 0;
                {
                    const WatchAllocations watch;
                    code = row.call();
                }
                EXPECT_TRUE(code == 1 || (code == -1 && allocation_failed())) << code;
                fail_allocation(0, false);
                EXPECT_EQ(row.call(), 1);
                EXPECT_EQ(footprint(), before);
            });
        }
    });
}

}  // namespace
}  // namespace eas::test
