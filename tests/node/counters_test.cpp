// The fifteen core events: what is asked of the kernel, and what is made of its answers.
#include <fcntl.h>

#include <cstring>

#include "base/UniqueFd.h"
#include "common/node/CoreCounters.h"
#include "common/node/CpuTopology.h"
#include "tests/node/NodeTest.h"

namespace eas::test {
namespace {

using fake::Counter;

using CountersTest = NodeTest;

const std::pair<uint32_t, uint64_t> kEvents[] = {
    {0, 0},        {0, 1},        {0, 2},        {0, 3},        {0, 4},
    {0, 5},        {0, 6},        {4, 0x80F0},   {4, 0x0143},   {4, 0x532010},
    {4, 0x538010}, {4, 0x534010}, {4, 0x531010}, {4, 0x530111}, {4, 0x530211},
};

/// The first 80 bytes of the attribute record as the kernel's interface lays them out.
std::array<uint64_t, 10> record(size_t event, uint64_t flags) {
    const auto [type, config] = kEvents[event];
    return {type | uint64_t{80} << 32, config, 0, 0, 3, flags, 0, 0, 0, 0};
}

std::array<uint64_t, 10> record(const Counter& counter) {
    std::array<uint64_t, 10> words;
    std::memcpy(words.data(), &counter.attr, sizeof words);
    return words;
}

constexpr uint64_t kInherit = 1 << 1, kEnableOnExec = 1 << 12;

size_t opened_counters() {
    size_t count = 0;
    for (const std::string& line : open_descriptors())
        count += line.find("/counter/") != std::string::npos;
    return count;
}

TEST_F(CountersTest, FollowsOneProcessWithFifteenEvents) {
    FakeNode node;
    inside(node, [&] {
        ASSERT_EQ(0, init_core_counters(4321));
        ASSERT_EQ(15U, node.state().counters.count);
        EXPECT_EQ(15U, opened_counters());
        for (size_t i = 0; i < 15; ++i) {
            SCOPED_TRACE(i);
            const Counter& counter = node.state().counters.rows[i];
            EXPECT_EQ(record(i, kInherit | kEnableOnExec), record(counter));
            EXPECT_EQ(4321, counter.pid);
            EXPECT_EQ(-1, counter.cpu);
            EXPECT_EQ(-1, counter.leader);
            EXPECT_EQ(0U, counter.flags);
        }
        EXPECT_EQ(0, core_counters.system_wide);
        close_core_counters();
        EXPECT_EQ(0U, opened_counters());
        const UniqueFd reused(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        close_core_counters();
        EXPECT_NE(-1, ::fcntl(reused.get(), F_GETFL)) << "closed under its new owner";
    });
}

TEST_F(CountersTest, FollowsTheNodeOnAsManyCpusAsItHasCores) {
    FakeNode node;  // 8 cores, 16 threads
    inside(node, [&] {
        ASSERT_EQ(0, discover_topology());
        ASSERT_EQ(0, init_core_counters(-1));
        ASSERT_EQ(15U * 8, node.state().counters.count);
        for (size_t i = 0; i < 15 * 8; ++i) {
            SCOPED_TRACE(i);
            Counter& counter = node.state().counters.rows[i];
            EXPECT_EQ(record(i / 8, kInherit), record(counter));
            EXPECT_EQ(-1, counter.pid);
            EXPECT_EQ(static_cast<int>(i % 8), counter.cpu);
            counter.words = {1000 * (i / 8) + i % 8, 1, 1};
        }
        hwrusage usage{};
        EXPECT_EQ(0, read_core_counters(&usage));
        EXPECT_EQ(28U, usage.cycles);
        EXPECT_EQ(8U * 8000 + 28, usage.l1d_all_ref);
        for (auto& row : core_counters.fds)
            for (int& fd : row)
                if (fd >= 0)
                    ::close(std::exchange(fd, -1));
    });
}

TEST_F(CountersTest, MoreCoresThanTheTableHoldsAreRefused) {
    NodeShape shape;
    shape.sockets = 4;
    shape.cores = 32;
    shape.threads = 1;
    FakeNode node(shape);
    inside(node, [&] {
        ASSERT_EQ(0, discover_topology());
        ASSERT_EQ(128, cinfo.numCores);
        EXPECT_EQ(-1, init_core_counters(-1));
        hwrusage usage{};
        EXPECT_EQ(-1, read_core_counters(&usage));
        EXPECT_EQ(0U, node.state().counters.count);
    });
}

TEST_F(CountersTest, EachEventLandsInItsField) {
    FakeNode node;
    inside(node, [&] {
        ASSERT_EQ(0, init_core_counters(1));
        uint64_t value = 1;
        for (size_t i = 0; i < 15; ++i, value *= 10)
            node.state().counters.rows[i].words[0] = value;
        hwrusage usage{};
        usage.membytes_xferred = usage.netbytes_xferred = usage.inlet_temperature = 77;
        const uint64_t before = rdclock();
        EXPECT_EQ(0, read_core_counters(&usage));
        EXPECT_EQ(1U, usage.cycles);
        EXPECT_EQ(10U, usage.instructions);
        EXPECT_EQ(100U, usage.cache_references);
        EXPECT_EQ(1000U, usage.cache_misses);
        EXPECT_EQ(10000U, usage.branch_instructions);
        EXPECT_EQ(100000U, usage.branch_misses);
        EXPECT_EQ(1000000U, usage.bus_cycles);
        EXPECT_EQ(10000000U, usage.l2_transactions);
        EXPECT_EQ(100000000U, usage.l1d_all_ref);
        // Rows 9 to 14 hold 10^9 to 10^14, weighted 1, 1, 4, 2, 8, 4.
        EXPECT_EQ(482411000000000U, usage.flops);
        EXPECT_LE(before, usage.tstamp);
        EXPECT_GE(rdclock(), usage.tstamp);
        EXPECT_EQ(77U, usage.membytes_xferred & usage.netbytes_xferred & usage.inlet_temperature);

        const UniqueFd failing(std::exchange(core_counters.fd[14], -1));
        const hwrusage untouched = usage;
        node.state().counters.rows[0].words[0] = 5;
        EXPECT_EQ(-1, read_core_counters(&usage));
        EXPECT_EQ(0, std::memcmp(&usage, &untouched, sizeof usage));
        close_core_counters();
    });
}

TEST_F(CountersTest, AnEventThatCannotBeOpenedEndsTheSetUp) {
    for (const int failing : {0, 14}) {
        SCOPED_TRACE(failing);
        FakeNode node;
        node.state().counter_fails_at = failing;
        inside(node, [&] {
            EXPECT_EQ(-1, init_core_counters(1));
            EXPECT_EQ(static_cast<size_t>(failing), opened_counters());
            hwrusage usage{};
            EXPECT_EQ(-1, read_core_counters(&usage));
            // The next attempt must not lose the descriptors of the first.
            node.state().counter_fails_at = -1;
            EXPECT_EQ(0, init_core_counters(1));
            EXPECT_EQ(15U, opened_counters());
            close_core_counters();
        });
    }
}

}  // namespace
}  // namespace eas::test
