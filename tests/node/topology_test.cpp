// How sockets, cores and threads are counted, and the registers of a processor.
#include <sstream>

#include "common/node/CpuTopology.h"
#include "common/node/Msr.h"
#include "tests/node/NodeTest.h"

namespace eas::test {
namespace {

using TopologyTest = NodeTest;

NodeShape with_ids(NodeShape shape, std::vector<int> sockets, std::vector<int> cores = {}) {
    shape.socket_ids = std::move(sockets);
    shape.core_ids = std::move(cores);
    shape.nonturbo_ratio = 200;
    return shape;
}

/// What was found: model; sockets, cores, threads, threads per core; socket ids in order of
/// appearance; first CPUs by id; nominal clock in Hz.
std::string found() {
    std::ostringstream text;
    text << cinfo.model << ": " << cinfo.numSockets << ' ' << cinfo.numCores << ' '
         << cinfo.numThreads << ' ' << cinfo.threads_per_core << ';';
    for (const int id : cinfo.SId)
        text << ' ' << id;
    text << ';';
    for (const int cpu : cinfo.cpuId)
        text << ' ' << cpu;
    text << "; " << cinfo.nominal_frequency;
    return text.str();
}

// The clock is that of ratio 20, and of 200 where ids are given. Gaps in core ids count
// hyper-threads twice.
const std::pair<NodeShape, const char*> kNodes[] = {
    {of_model(30, 1, 4, 2), "26: 1 4 8 2; 0 -1 -1 -1; 0 -1 -1 -1; 2666666660"},
    {of_model(42, 1, 4, 1), "42: 1 4 4 1; 0 -1 -1 -1; 0 -1 -1 -1; 2000000000"},
    {of_model(62, 2, 12, 2), "62: 2 24 48 2; 0 1 -1 -1; 0 12 -1 -1; 2000000000"},
    {of_model(46, 4, 16, 2), "46: 4 64 128 2; 0 1 2 3; 0 16 32 48; 2666666660"},
    {with_ids(of_model(44, 2, 6, 2), {}, {0, 1, 2, 8, 9, 10}),
     "44: 2 18 24 1; 0 1 -1 -1; 0 6 -1 -1; 26666666600"},
    {of_model(23, 1, 2, 1), "23: 1 2 2 1; 0 -1 -1 -1; 0 -1 -1 -1; 2666666660"},
    {of_model(28, 1, 2, 1), "28: 1 2 2 1; 0 -1 -1 -1; 0 -1 -1 -1; 2666666660"},
    {with_ids(of_model(37, 1, 4, 1), {}, {0, 1, 9, 63}),
     "37: 1 4 4 1; 0 -1 -1 -1; 0 -1 -1 -1; 26666666600"},
    {with_ids(of_model(45, 2, 2, 1), {0, 3}), "45: 2 4 4 1; 0 3 -1 -1; 0 -1 -1 2; 20000000000"},
    {with_ids(of_model(47, 2, 2, 1), {1, 0}), "47: 2 4 4 1; 1 0 -1 -1; 2 0 -1 -1; 26666666600"},
};

TEST_F(TopologyTest, CountsSocketsCoresAndThreads) {
    for (const auto& [shape, expected] : kNodes) {
        FakeNode node(shape);
        inside(node, [&shape = shape, expected = expected] {
            ASSERT_EQ(0, discover_topology());
            EXPECT_EQ(expected, found());
            for (int cpu = 0; cpu < max_cpus; ++cpu) {
                const int index = shape.socket_of(cpu);
                const int id =
                    shape.socket_ids.empty() ? index : shape.socket_ids[static_cast<size_t>(index)];
                EXPECT_EQ(cpu < shape.cpus() ? id : -1, cinfo.socketId[cpu]) << cpu;
            }
        });
    }
}

TEST_F(TopologyTest, AListWithoutAProcessorIsNoSupportedPlatform) {
    FakeNode node;
    inside(node, [] {
        for (const char* text :
             {"vendor_id\t: AuthenticAMD\n", "", "physical id\t: 0\ncore id\t: 0\n", "processor"}) {
            write_file("/proc/cpuinfo", text);
            discover_topology();  // must end, whatever it says
            EXPECT_EQ(0, supported_platform());
            EXPECT_EQ(0, cinfo.numCores);
        }
        const Hidden gone("/proc");
        EXPECT_EQ(-1, discover_topology());
    });
}

TEST_F(TopologyTest, RegistersAreEightBytesAtTheirNumberBehindADevice) {
    FakeNode node;
    inside(node, [&] {
        uint64_t value = 5;
        EXPECT_EQ(0, wrmsr(3, 0x3C0, 0x123456789abcdef0));
        EXPECT_EQ(0, wrmsr(3, 0x3C1, 7));
        EXPECT_EQ(0, rdmsr(3, 0x3C0, &value));
        EXPECT_EQ(0x123456789abcdef0U, value);
        EXPECT_EQ(-1, rdmsr(3, 0x777, &value)) << "no such register";
        EXPECT_EQ(-1, rdmsr(99, 0x3C0, &value)) << "no such processor";
        EXPECT_EQ(-1, wrmsr(-1, 0x3C0, 0));
        node.state().msr_device = fake::MsrDevice::short_reads;
        EXPECT_EQ(-1, rdmsr(3, 0x3C1, &value));
        EXPECT_EQ(0x123456789abcdef0U, value);
        EXPECT_EQ(0, checkmsr());
        node.state().msr_device = fake::MsrDevice::missing;
        EXPECT_EQ(-1, checkmsr());
        EXPECT_EQ(0, supported_platform());
        EXPECT_EQ(0, discover_topology());
        EXPECT_EQ(0U, cinfo.nominal_frequency);
    });
}

}  // namespace
}  // namespace eas::test
