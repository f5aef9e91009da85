// Whether the CPUs run at the frequency that was set, by each way to tell it; and how they are
// counted.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>

#include "tests/node/Frequency.h"
#include "tests/node/NodeTest.h"
#include "tests/node/SmallNode.h"

namespace eas::test {
namespace {

using ::testing::HasSubstr;

using ClockTest = NodeTest;

/// The clock of the handle's CPUs over that time, in which a fake node is always busy.
easnode_clock clock_of(Frequency& frequency, int khz, unsigned microseconds) {
    easnode_frequency_check* check = nullptr;
    EXPECT_EQ(EASNODE_OK, easnode_frequency_check_begin(frequency.handle.get(), khz, &check));
    ::usleep(microseconds);
    easnode_clock clock{};
    clock.size = sizeof clock;
    EXPECT_EQ(EASNODE_OK, easnode_frequency_check_end(check, &clock));
    return clock;
}

TEST_F(ClockTest, TheClockShowsWhetherTheHardwareFollows) {
    enum Trouble { none, deaf, capped, moved, limited, idle, brief };
    NodeShape denied = small_node("xeon2023");
    denied.perf_refusal = EACCES;
    NodeShape no_reference = small_node("epyc2019");  // nor that of its family
    NodeShape firmware = small_node("epyc2019");
    put(firmware, policy_file(0, "bios_limit"), "2300000");  // to be written later
    put(no_reference, "/sys/bus/event_source/devices/msr/events/mperf", "!ENOENT");
    const struct {
        NodeShape shape;
        int khz;
        Trouble trouble;
        int verdict, mean;
        const char* source;
        const char* text;
    } rows[] = {
        {small_node("xeon2023"), 1400000, none, EASNODE_RUNS_AT, 1400000, "ref-cycles", ""},
        {small_node("xeon2023"), 3000000, none, EASNODE_RUNS_AT, 3000000, "ref-cycles", ""},
        {small_node("epyc2023"), 1500000, none, EASNODE_RUNS_AT, 1500000, "ref-cycles", ""},
        {small_node("epyc2019"), 2300000, none, EASNODE_RUNS_AT, 2300000, "aperf/mperf", ""},
        {small_node("xeon2023"), 1400000, deaf, EASNODE_RUNS_OTHERWISE, 3800000, "ref-cycles",
         "turbo"},
        {small_node("xeon2023"), 1400000, capped, EASNODE_RUNS_OTHERWISE, 1200000, "ref-cycles",
         "heat"},
        {small_node("xeon2023"), 1400000, moved, EASNODE_RUNS_OTHERWISE, 1800000, "ref-cycles",
         "cpu0 has the limits 1400000 to 3000000 kHz now"},
        {firmware, 2000000, limited, EASNODE_RUNS_OTHERWISE, 1500000, "aperf/mperf",
         "the firmware limits cpu0 to 1500000 kHz"},
        {small_node("meter-only"), 2001000, none, EASNODE_RUNS_AT, 2700000, "ref-cycles", ""},
        {small_node("xeon2023"), 1400000, idle, EASNODE_CANNOT_TELL, 0, "ref-cycles",
         "no CPU was busy for a tenth of the time"},
        {no_reference, 2000000, none, EASNODE_RUNS_AT, 2000000, "busy time", ""},
        {no_reference, 2000000, brief, EASNODE_CANNOT_TELL, 0, "busy time",
         "no CPU was busy throughout for a second or more"},
        {denied, 1400000, none, EASNODE_CANNOT_TELL, 0, "", "CAP_PERFMON"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.khz) + " " + std::to_string(row.trouble));
        FakeNode node(row.shape);
        inside(node, [&] {
            Frequency all(row.trouble == idle ? "4" : nullptr);  // the other thread of a core
            ASSERT_EQ(EASNODE_OK, all.set(row.khz)) << all.problem.text;
            node.state().deaf = row.trouble == deaf;
            if (row.trouble == capped || row.trouble == limited)
                node.state().cap_khz = row.trouble == capped ? 1200000 : 1500000;
            if (row.trouble == moved)
                store(policy_file(0, "scaling_max_freq"), "3000000");
            if (row.trouble == limited)
                store(policy_file(0, "bios_limit"), "1500000");
            const bool ticks = row.source == std::string("busy time") && row.trouble != brief;
            const easnode_clock clock = clock_of(all, row.khz, ticks ? 1200000 : 200000);
            EXPECT_EQ(row.verdict, clock.verdict) << clock.mean_khz << ' ' << clock.text;
            EXPECT_NEAR(row.mean, clock.mean_khz, 0.1 * row.mean);
            EXPECT_EQ(row.khz, clock.asked_khz);
            EXPECT_TRUE(row.mean == 0 || (clock.busy_seconds > 0.7 && clock.busy_seconds < 60));
            if (row.trouble == moved) {
                EXPECT_NEAR(3000000, clock.fastest_khz, 1e5);
                EXPECT_NEAR(1400000, clock.slowest_khz, 1e5);
                EXPECT_TRUE(clock.fastest_cpu == 0 && clock.slowest_cpu != 0);
            }
            EXPECT_STREQ(row.source, clock.source);
            EXPECT_THAT(clock.text, HasSubstr(row.text));
            easnode_frequency_check* check = nullptr;
            ASSERT_EQ(EASNODE_OK, easnode_frequency_check_begin(all.handle.get(), row.khz, &check));
            EXPECT_EQ(EASNODE_OK, easnode_frequency_check_end(check, nullptr)) << "given up";
        });
    }
}

TEST_F(ClockTest, CountsCpusThatAreOnline) {
    const struct {
        const char* shape;
        int cpus, sockets, cores, threads, possible, model;
        int (*core)(int cpu);
    } rows[] = {
        {"xeon2023", 224, 2, 112, 2, 256, 143, [](int cpu) { return cpu % 112; }},
        {"hybrid", 24, 1, 16, 2, 24, 151, [](int cpu) { return cpu < 16 ? cpu / 2 : cpu - 8; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.shape);
        NodeShape shape = fake::read_shape(row.shape);
        put(shape, "/sys/devices/system/node/online", "0-2");
        put(shape, "/sys/devices/system/node/node0/cpulist", "0-3,6-1023");
        put(shape, "/sys/devices/system/node/node1/cpulist", "");  // memory alone
        put(shape, "/sys/devices/system/node/node2/cpulist", "4-5");
        for (int cpu = 0; cpu < row.cpus; ++cpu) {
            const std::string place = cpu_folder + "cpu" + std::to_string(cpu) + "/topology/";
            put(shape, place + "physical_package_id", cpu / 56 % 2 == 0 ? "5" : "36");
            if (row.sockets == 1)  // an older kernel
                put(shape, place + "core_cpus_list", "");
        }
        FakeNode node(shape);
        inside(node, [&] {
            easnode_topology found{};
            found.size = sizeof found;
            ASSERT_EQ(EASNODE_OK, easnode_topology_read(&found));
            EXPECT_EQ(row.cpus, found.cpus);
            EXPECT_EQ(row.sockets, found.sockets);
            EXPECT_EQ(row.cores, found.cores);
            EXPECT_EQ(row.threads, found.threads_per_core);
            EXPECT_EQ(2, found.numa_nodes);
            EXPECT_EQ(row.possible, found.possible_cpus);
            EXPECT_EQ(6000 + row.model, 1000 * found.family + found.model);
            std::vector<easnode_cpu> cpus(1024);
            size_t count = 0;
            std::vector<int> threads(1024);
            ASSERT_EQ(EASNODE_OK, easnode_topology_cpus(cpus.data(), cpus.size(), &count));
            for (int cpu = 0; cpu < row.cpus; ++cpu) {
                const easnode_cpu& one = cpus[static_cast<size_t>(cpu)];
                const int core = row.core(cpu), thread = threads[static_cast<size_t>(core)]++;
                EXPECT_THAT((std::vector{one.cpu, one.socket, one.core, one.thread, one.numa_node}),
                            ::testing::ElementsAre(cpu, core / 56, core, thread,
                                                   cpu == 4 || cpu == 5 ? 2 : 0));
            }
            store(cpu_folder + "cpu1/online", "0");
            EXPECT_EQ(EASNODE_TOO_SMALL, easnode_topology_cpus(cpus.data(), 1, &count));
            ASSERT_EQ(static_cast<size_t>(row.cpus - 1), count);
            ASSERT_EQ(EASNODE_OK, easnode_topology_cpus(cpus.data(), cpus.size(), &count));
            EXPECT_EQ(2, cpus[1].cpu) << "a hole";
            const easnode_cpu& other = cpus[112];  // of the same core, alone now and last
            EXPECT_EQ(row.sockets == 2 ? 1110 : 0, other.core * 10 + other.thread);
            EXPECT_EQ(row.sockets - 1, cpus[count - 1].socket);
            EXPECT_EQ(EASNODE_BAD_ARGUMENT, Frequency("1").code);
            store(cpu_folder + "cpu1/online", "1");
        });
    }
}

}  // namespace
}  // namespace eas::test
