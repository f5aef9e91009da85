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

/// What an event of the table asks of the kernel, in the 80 bytes of its interface's second
/// version.
perf_event_attr record(size_t event, bool node_wide) {
    perf_event_attr attr{};
    attr.type = kEvents[event].first;
    attr.config = kEvents[event].second;
    attr.size = 80;
    attr.read_format = 3;  // the times enabled and running beside the value
    attr.inherit = 1;
    attr.enable_on_exec = node_wide ? 0 : 1;
    return attr;
}

void expect_event(const Counter& counter, size_t event, int pid, int cpu) {
    const perf_event_attr expected = record(event, pid == -1);
    EXPECT_EQ(0, std::memcmp(&expected, &counter.attr, 80)) << event;
    EXPECT_EQ(pid, counter.pid);
    EXPECT_EQ(cpu, counter.cpu);
    EXPECT_EQ(-1, counter.leader);
    EXPECT_EQ(0U, counter.flags);
}

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
        for (size_t i = 0; i < 15; ++i)
            expect_event(node.state().counters.rows[i], i, 4321, -1);
        EXPECT_EQ(0, core_counters.system_wide);
        close_core_counters();
        EXPECT_EQ(0U, opened_counters());
        const UniqueFd reused(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        close_core_counters();
        EXPECT_NE(-1, ::fcntl(reused.get(), F_GETFL)) << "closed under its new owner";
    });
}

TEST_F(CountersTest, FollowsTheNodeOnAsManyCpusAsItHasCoresAndKeepsItsDescriptors) {
    FakeNode node;  // 8 cores, 16 threads
    inside(node, [&] {
        hwrusage usage{};
        ASSERT_EQ(0, gethwrusage(-1, &usage));
        ASSERT_EQ(15U * 8, node.state().counters.count);
        for (size_t i = 0; i < 15 * 8; ++i) {
            Counter& counter = node.state().counters.rows[i];
            expect_event(counter, i / 8, -1, static_cast<int>(i % 8));
            counter.words = {1000 * (i / 8) + i % 8, 1, 1};
        }
        EXPECT_EQ(0, gethwrusage(-1, &usage));
        EXPECT_EQ(28U, usage.cycles);
        EXPECT_EQ(8U * 8000 + 28, usage.l1d_all_ref);
        EXPECT_EQ(0, gethwrusage(-1, nullptr));
        EXPECT_EQ(15U * 8, opened_counters());
        ASSERT_EQ(0, gethwrusage(-1, &usage));
        EXPECT_EQ(0, gethwrusage(-1, nullptr));
        EXPECT_EQ(15U * 8, opened_counters()) << "starting again does not pile more of them up";
        for (auto& row : core_counters.fds)
            for (FdSlot& fd : row)
                if (fd >= 0) {
                    EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
                    ::close(std::exchange(fd, -1));
                }
    });
}

TEST_F(CountersTest, MoreCoresThanTheTableHoldsAreRefused) {
    for (const int cores : {16, 17}) {  // of each of four sockets
        FakeNode node(of_model(45, 4, cores, 1));
        EXPECT_EQ(cores == 16 ? 0 : 2, node.run([] {
            hwrusage usage{};
            return -(discover_topology() + init_core_counters(-1) + read_core_counters(&usage));
        }));
        EXPECT_EQ(cores == 16 ? 15U * 64 : 0U, node.state().counters.count);
    }
}

TEST_F(CountersTest, EachEventLandsInItsField) {
    FakeNode node;
    inside(node, [&] {
        ASSERT_EQ(0, init_core_counters(1));
        uint64_t value = 1;
        for (size_t i = 0; i < 15; ++i, value *= 10)
            node.state().counters.rows[i].words[0] = value;
        // As the record lies in memory: daemons were built against it. Rows 9 to 14 hold 10^9 to
        // 10^14, weighted 1, 1, 4, 2, 8, 4.
        std::array<uint64_t, 14> expected = {1,    10,       10000,    100000, 100,
                                             1000, 1000000,  7,        7,      482411000000000,
                                             7,    10000000, 100000000};
        hwrusage usage{};
        usage.membytes_xferred = usage.netbytes_xferred = usage.inlet_temperature = 7;
        const uint64_t before = rdclock();
        EXPECT_EQ(0, read_core_counters(&usage));
        EXPECT_LE(before, usage.tstamp);
        EXPECT_GE(rdclock(), usage.tstamp);
        expected[13] = usage.tstamp;
        EXPECT_EQ(sizeof expected, sizeof usage);
        EXPECT_EQ(0, std::memcmp(&usage, expected.data(), sizeof usage))
            << ::testing::PrintToString(expected) << ::testing::PrintToString(usage);

        const UniqueFd failing(std::exchange(core_counters.fd[14], -1));
        const hwrusage untouched = usage;
        node.state().counters.rows[0].words[0] = 5;
        EXPECT_EQ(-1, read_core_counters(&usage));
        EXPECT_EQ(0, std::memcmp(&usage, &untouched, sizeof usage));
        close_core_counters();
    });
}

}  // namespace
}  // namespace eas::test
