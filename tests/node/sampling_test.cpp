// gethwrusage from the outside: what a daemon sees over a life of samples, and which privileges it
// has meanwhile.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstring>

#include "common/node/CpuTopology.h"
#include "common/node/EasMisc.h"
#include "common/node/EnergySensors.h"
#include "tests/node/NodeTest.h"

namespace eas::test {
namespace {

using SamplingTest = NodeTest;

constexpr uid_t kUser = 65534;

std::string users() {
    uid_t real = 0, effective = 0, saved = 0;
    ::getresuid(&real, &effective, &saved);
    return std::to_string(real) + " " + std::to_string(effective) + " " + std::to_string(saved);
}

TEST_F(SamplingTest, SamplesTearsDownAndStartsAgainForAnotherProcess) {
    for (const int number : {26, 45, 47, 42}) {
        SCOPED_TRACE(number);
        FakeNode node(of_model(number));
        inside(node, [&] {
            auto& counters = node.state().counters;
            const std::string before = footprint();
            hwrusage usage{};
            ASSERT_EQ(0, gethwrusage(1001, &usage));
            ASSERT_EQ(15U, counters.count);
            EXPECT_EQ(1001, counters.rows[14].pid);
            EXPECT_EQ(number == 42 ? 999U : 55U, usage.inlet_temperature);
            counters.rows[0].words[0] = 123;
            if (number == 26)
                node.state().set_msr(4, 0x3B1, 2);
            ASSERT_EQ(0, gethwrusage(2002, &usage));
            EXPECT_EQ(15U, counters.count) << "the first process is followed for good";
            EXPECT_EQ(123U, usage.cycles);
            EXPECT_EQ(number == 26 ? 128U : 0U, usage.membytes_xferred);
            EXPECT_GT(usage.tstamp, 0U);

            EXPECT_EQ(0, gethwrusage(1001, nullptr));
            EXPECT_EQ(before, footprint());
            EXPECT_EQ(0, gethwrusage(1001, nullptr));
            EXPECT_EQ(before, footprint());

            ASSERT_EQ(0, gethwrusage(3003, &usage));
            EXPECT_EQ(30U, counters.count);
            EXPECT_EQ(3003, counters.rows[15].pid);
            EXPECT_EQ(0U, usage.cycles);
            EXPECT_EQ(0, gethwrusage(0, nullptr));
        });
    }
}

TEST_F(SamplingTest, AnUnsupportedNodeIsRefusedAndLookedAtAgain) {
    FakeNode node(of_model(28));
    inside(node, [&] {
        hwrusage usage, untouched;
        std::memset(&usage, 0x55, sizeof usage);
        untouched = usage;
        ASSERT_EQ(0, ::setresuid(kUser, kUser, 0));
        EXPECT_EQ(-1, gethwrusage(1, &usage));
        EXPECT_EQ("65534 65534 0", users());
        EXPECT_EQ(0, std::memcmp(&usage, &untouched, sizeof usage));
        EXPECT_EQ(0U, node.state().counters.count);
        ASSERT_EQ(0, ::setresuid(-1U, 0, 0));
        ASSERT_EQ(0, ::setresuid(0, 0, 0));
        write_file("/proc/cpuinfo", fake::cpuinfo_text(of_model(44)));
        EXPECT_EQ(0, gethwrusage(1, &usage));
        EXPECT_EQ(0, gethwrusage(1, nullptr));
    });
}

// Standard input is open all the while: a table of zeroes that is torn down would close it.
TEST_F(SamplingTest, APartialSetUpIsAcceptedAndTornDownCleanly) {
    for (const int failing : {0, 7}) {
        SCOPED_TRACE(failing);
        FakeNode node(of_model(45));
        node.state().counter_fails_at = failing;
        inside(node, [&] {
            hwrusage usage{};
            usage.cycles = 5;
            write_file("/sys/firmware/acpi/tables/MCFG", "");
            for (int sample = 0; sample < 2; ++sample) {
                EXPECT_EQ(0, gethwrusage(1, &usage));
                EXPECT_EQ(5U, usage.cycles) << "the core fields keep what they had";
                EXPECT_EQ(0U, usage.membytes_xferred);
                EXPECT_EQ(55U, usage.inlet_temperature);
            }
            EXPECT_EQ(static_cast<size_t>(failing), node.state().counters.count);
            EXPECT_EQ(0, gethwrusage(1, nullptr));
        });
    }
}

TEST_F(SamplingTest, AGapInTheSocketIdsCostsAReadingButNoTearDown) {
    NodeShape shape = of_model(44);
    shape.socket_ids = {0, 3};
    FakeNode node(shape);
    inside(node, [&] {
        hwrusage usage{};
        ASSERT_EQ(0, gethwrusage(1, &usage));
        EXPECT_EQ(1U, *node.state().find_msr(4, 0x395)) << "both are programmed";
        node.state().set_msr(0, 0x3B0, 10);
        node.state().set_msr(4, 0x3B0, 10);
        ASSERT_EQ(0, gethwrusage(1, &usage));
        EXPECT_EQ(640U, usage.membytes_xferred) << "the second socket's CPU is not found";
        EXPECT_EQ(999U, usage.inlet_temperature);
        EXPECT_EQ(0, gethwrusage(1, nullptr));
        for (const int cpu : {0, 4})
            EXPECT_EQ(0U, *node.state().find_msr(cpu, 0x391));
        EXPECT_EQ(0, node.state().stray_lookups);
    });
}

TEST_F(SamplingTest, RegainsRootForTheLengthOfASample) {
    FakeNode node(of_model(44));
    inside(node, [] {
        hwrusage usage{};
        ASSERT_EQ(0, ::setresuid(kUser, kUser, 0));
        EXPECT_EQ(0, gethwrusage(1, &usage));
        EXPECT_EQ(55U, usage.inlet_temperature) << "the registers are root's";
        EXPECT_EQ("65534 65534 0", users());
        EXPECT_EQ(0, gethwrusage(1, &usage));
        EXPECT_EQ(0, gethwrusage(1, nullptr));
        EXPECT_EQ("65534 65534 0", users());
        EXPECT_EQ(0, gethwrusage(1, nullptr));
        EXPECT_EQ("65534 0 0", users()) << "nothing to tear down: what was regained stays";
        ASSERT_EQ(0, ::setresuid(0, 0, 0));
    });
}

TEST_F(SamplingTest, SwitchesTheEffectiveUserAndGivesItUpForGood) {
    FakeNode node;
    const int status = node.run([] {
        EXPECT_EQ(0, drop_priv_temp(::getuid()));
        EXPECT_EQ("0 0 0", users());
        EXPECT_EQ(0, drop_priv_temp(kUser));
        EXPECT_EQ("0 65534 0", users());
        EXPECT_EQ(-1, drop_priv_temp(kUser - 1)) << "an ordinary user may not become another";
        EXPECT_EQ("0 65534 0", users());
        EXPECT_EQ(0, restore_priv());
        EXPECT_EQ(0, restore_priv());
        EXPECT_EQ("0 0 0", users());
        EXPECT_EQ(0, drop_priv_temp(kUser));
        EXPECT_EQ(-1, drop_priv_temp(-1U)) << "not an id: only the saved one changes";
        EXPECT_EQ("0 65534 65534", users());
        EXPECT_EQ(0, drop_priv_temp(0));
        EXPECT_EQ("0 0 65534", users()) << "what was effective is saved";
        EXPECT_EQ(0, drop_priv_perm(kUser));
        EXPECT_EQ("65534 65534 65534", users());
        EXPECT_EQ(0, restore_priv());
        EXPECT_EQ("65534 65534 65534", users());
        EXPECT_EQ(-1, drop_priv_perm(0));
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
        return 0;
    });
    EXPECT_EQ(0, status);
}

TEST_F(SamplingTest, TheTemperatureIsTheMeanMarginOfTheSockets) {
    const auto valid = [](uint64_t reading) { return 1ULL << 31 | reading << 16; };
    const struct {
        uint64_t status[2], target[2], result;  // of the two sockets
    } rows[] = {
        {{valid(40), valid(30)}, {95 << 16, 100 << 16}, 62},             // (55 + 70) / 2
        {{valid(40), 41 << 16}, {95 << 16, 95 << 16}, 999},              // one without a reading
        {{valid(40), 1ULL << 32 | 40 << 16}, {95 << 16, 95 << 16}, 55},  // bit 32 counts
        {{0xFFFFFFFF, 0xFFFFFFFF}, {0xFFFFFFFF, 0xFFFFFFFF}, 0},
    };
    for (const int model : {26, 30, 37, 42, 44, 45, 46, 47, 62}) {
        SCOPED_TRACE(model);
        FakeNode node(of_model(model));
        inside(node, [&] {
            ASSERT_EQ(0, discover_topology());
            const bool reads = model != 42 && model != 46;
            for (const auto& row : rows) {
                for (const int socket : {0, 1}) {
                    const int cpu = node.shape().first_cpu_of(socket);
                    node.state().set_msr(cpu, 0x19C, row.status[socket]);
                    node.state().set_msr(cpu, 0x1A2, row.target[socket]);
                }
                node.state().msr_log.clear();
                hwrusage usage{};
                EXPECT_EQ(0, read_inlet_temperature(&usage));
                EXPECT_EQ(reads ? row.result : 999, usage.inlet_temperature);
                EXPECT_EQ(reads ? 4U : 0U, node.state().msr_log.count);
            }
        });
    }
}

}  // namespace
}  // namespace eas::test
