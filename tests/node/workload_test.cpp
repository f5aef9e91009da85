// The simulated work: what a calibration would see on a node whose power and pace are known at each
// frequency. Measured over real time, so the bounds are wide.
#include <time.h>

#include "common/EasMisc.h"
#include "common/EnergyUtil.h"
#include "tests/node/NodeTest.h"

namespace eas::test {
namespace {

using WorkloadTest = NodeTest;

TEST_F(WorkloadTest, PowerPaceAndMemoryTrafficFollowTheFrequency) {
    for (const int model : {44, 62}) {  // counted by registers, by memory channels
        SCOPED_TRACE(model);
        NodeShape shape = of_model(model);
        shape.workload = {{1600000, 150, 1.0, 0.01}, {2400000, 320, 2.0, 0.03}};
        FakeNode node(shape);
        inside(node, [&] {
            for (const fake::WorkloadRow& row : shape.workload) {
                SCOPED_TRACE(row.khz);
                ASSERT_EQ(1, EnergyUtil::set_all_cpu_freqs(row.khz));
                enrusage energy[2];
                hwrusage usage[2];
                for (const int i : {0, 1}) {
                    ASSERT_EQ(0, gethwrusage(1, &usage[i]));
                    ASSERT_EQ(0, getenrusage(RUSAGE_SELF, &energy[i]));
                    const timespec pause{0, i == 0 ? 200000000 : 0};
                    ::nanosleep(&pause, nullptr);
                }
                const auto seconds = static_cast<double>(usage[1].tstamp - usage[0].tstamp) / 1e9;
                const auto delta = [&](uint64_t hwrusage::*field) {
                    return static_cast<double>(usage[1].*field - usage[0].*field);
                };
                const double instructions = delta(&hwrusage::instructions);
                const auto joules =
                    static_cast<double>(energy[1].energy1_input - energy[0].energy1_input) / 1e6;
                EXPECT_NEAR(row.watts, joules / seconds, 0.3 * row.watts);
                EXPECT_NEAR(row.khz * 8e3, delta(&hwrusage::cycles) / seconds, row.khz * 8e3 * 0.3);
                EXPECT_NEAR(row.cycles_per_instruction, delta(&hwrusage::cycles) / instructions,
                            0.3);
                EXPECT_NEAR(row.lines_per_instruction,
                            delta(&hwrusage::membytes_xferred) / 64 / instructions,
                            0.3 * row.lines_per_instruction);
            }
            gethwrusage(1, nullptr);
        });
    }
}

}  // namespace
}  // namespace eas::test
