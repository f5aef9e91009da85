// Which processors are recognised, how their sockets, cores and threads are counted, what is
// refused.
#include <gmock/gmock.h>

#include "common/node/CpuTopology.h"
#include "common/node/Msr.h"
#include "tests/node/NodeTest.h"

namespace eas::test {
namespace {

using fake::CpuOrder;
using ::testing::ElementsAre;

using TopologyTest = NodeTest;

NodeShape shape_of(int model, int sockets, int cores, int threads,
                   CpuOrder order = CpuOrder::kSocketBySocket) {
    NodeShape shape = of_model(model);
    shape.sockets = sockets;
    shape.cores = cores;
    shape.threads = threads;
    shape.order = order;
    return shape;
}

NodeShape with_ids(NodeShape shape, std::vector<int> sockets, std::vector<int> cores = {}) {
    shape.socket_ids = std::move(sockets);
    shape.core_ids = std::move(cores);
    return shape;
}

struct TopologyRow {
    const char* name;
    NodeShape shape;
    int model, sockets, cores, threads, threads_per_core;
    std::array<int, 4> socket_ids, first_cpus;
    uint64_t nominal_hz;  // of ratio 20
};

const TopologyRow kNodes[] = {
    {"one socket",
     shape_of(26, 1, 4, 1),
     26,
     1,
     4,
     4,
     1,
     {0, -1, -1, -1},
     {0, -1, -1, -1},
     2666666660},
    {"stored as its sibling",
     shape_of(30, 1, 4, 2),
     26,
     1,
     4,
     8,
     2,
     {0, -1, -1, -1},
     {0, -1, -1, -1},
     2666666660},
    {"desktop on the faster bus",
     shape_of(42, 1, 4, 2),
     42,
     1,
     4,
     8,
     2,
     {0, -1, -1, -1},
     {0, -1, -1, -1},
     2000000000},
    {"two sockets",
     shape_of(45, 2, 4, 2),
     45,
     2,
     8,
     16,
     2,
     {0, 1, -1, -1},
     {0, 4, -1, -1},
     2000000000},
    {"numbered round robin",
     shape_of(62, 2, 12, 2, CpuOrder::kRoundRobin),
     62,
     2,
     24,
     48,
     2,
     {0, 1, -1, -1},
     {0, 1, -1, -1},
     2000000000},
    {"four sockets, 128 threads",
     shape_of(46, 4, 16, 2),
     46,
     4,
     64,
     128,
     2,
     {0, 1, 2, 3},
     {0, 16, 32, 48},
     2666666660},
    {"gaps in core ids count hyper-threads twice",
     with_ids(shape_of(44, 2, 6, 2), {}, {0, 1, 2, 8, 9, 10}),
     44,
     2,
     18,
     24,
     1,
     {0, 1, -1, -1},
     {0, 6, -1, -1},
     2666666660},
    {"gaps without hyper-threading",
     with_ids(shape_of(37, 1, 4, 1), {}, {0, 1, 9, 10}),
     37,
     1,
     4,
     4,
     1,
     {0, -1, -1, -1},
     {0, -1, -1, -1},
     2666666660},
    {"ten cores with gaps",
     with_ids(shape_of(47, 4, 10, 2), {}, {0, 1, 2, 8, 9, 16, 17, 18, 24, 25}),
     47,
     4,
     60,
     80,
     1,
     {0, 1, 2, 3},
     {0, 10, 20, 30},
     2666666660},
    {"a gap in socket ids",
     with_ids(shape_of(45, 2, 2, 1), {0, 3}),
     45,
     2,
     4,
     4,
     1,
     {0, 3, -1, -1},
     {0, -1, -1, 2},
     2000000000},
    {"sockets named backwards",
     with_ids(shape_of(45, 2, 2, 1), {1, 0}),
     45,
     2,
     4,
     4,
     1,
     {1, 0, -1, -1},
     {2, 0, -1, -1},
     2000000000},
};

TEST_F(TopologyTest, CountsSocketsCoresAndThreads) {
    for (const TopologyRow& row : kNodes) {
        SCOPED_TRACE(row.name);
        FakeNode node(row.shape);
        inside(node, [&] {
            ASSERT_EQ(0, discover_topology());
            EXPECT_EQ(6, cinfo.family);
            EXPECT_EQ(row.model, cinfo.model);
            EXPECT_EQ(row.sockets, cinfo.numSockets);
            EXPECT_EQ(row.cores, cinfo.numCores);
            EXPECT_EQ(row.threads, cinfo.numThreads);
            EXPECT_EQ(row.threads_per_core, cinfo.threads_per_core);
            EXPECT_THAT(cinfo.SId, ::testing::ElementsAreArray(row.socket_ids));
            EXPECT_THAT(cinfo.cpuId, ::testing::ElementsAreArray(row.first_cpus));
            EXPECT_EQ(row.nominal_hz, cinfo.nominal_frequency);
            for (int cpu = 0; cpu < MAX_CPUS; ++cpu) {
                const int index = row.shape.socket_of(cpu);
                const int id = row.shape.socket_ids.empty()
                                   ? index
                                   : row.shape.socket_ids[static_cast<size_t>(index)];
                EXPECT_EQ(cpu < row.threads ? id : -1, cinfo.socketId[cpu]) << cpu;
            }
        });
    }
}

TEST_F(TopologyTest, SupportsTheServerModelsOnly) {
    const std::pair<int, int> rows[] = {{26, 1}, {28, 0}, {30, 1}, {37, 1}, {42, 1},
                                        {44, 1}, {45, 1}, {46, 1}, {47, 1}, {62, 1},
                                        {23, 0}, {58, 0}, {63, 0}};
    for (const auto& [model, supported] : rows) {
        SCOPED_TRACE(model);
        FakeNode node(shape_of(model, 1, 2, 1));
        inside(node, [&, expected = supported] { EXPECT_EQ(expected, supported_platform()); });
    }
}

/// The text of a good node with one replacement.
std::string edited(const NodeShape& shape, const std::string& from, const std::string& to) {
    std::string text = fake::cpuinfo_text(shape);
    const size_t at = text.find(from);
    EXPECT_NE(std::string::npos, at) << from;
    return text.replace(at, from.size(), to);
}

TEST_F(TopologyTest, RefusesWhatItCannotCount) {
    const NodeShape good = shape_of(45, 2, 2, 1);
    const struct {
        const char* name;
        std::string text;
        int result;
    } rows[] = {
        {"another vendor", edited(good, "GenuineIntel", "AuthenticAMD"), -2},
        {"a longer vendor word", edited(good, "GenuineIntel", "GenuineIntelX"), -2},
        {"another family", edited(good, "cpu family\t: 6", "cpu family\t: 15"), -2},
        {"an unknown model", edited(good, "model\t\t: 45", "model\t\t: 58"), -2},
        {"another vendor on a later processor",
         edited(good, "processor\t: 1\nvendor_id\t: GenuineIntel",
                "processor\t: 1\nvendor_id\t: AuthenticAMD"),
         0},
        {"a fifth socket", edited(good, "physical id\t: 1", "physical id\t: 4"), -2},
        {"a negative socket", edited(good, "physical id\t: 1", "physical id\t: -1"), -2},
        {"core id 64", edited(good, "core id\t\t: 1", "core id\t\t: 64"), -2},
        {"a negative core id", edited(good, "core id\t\t: 1", "core id\t\t: -1"), -2},
        {"processor 128", edited(good, "processor\t: 3", "processor\t: 128"), -2},
        {"132 processors", fake::cpuinfo_text(shape_of(45, 4, 33, 1)), -2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeNode node(good);
        inside(node, [&] {
            write_file("/proc/cpuinfo", row.text);
            EXPECT_EQ(row.result, discover_topology());
            EXPECT_EQ(row.result == 0 ? 1 : 0, supported_platform());
        });
    }
}

TEST_F(TopologyTest, AListWithoutAProcessorIsNoSupportedPlatform) {
    FakeNode node;
    inside(node, [] {
        for (const char* text : {"", "physical id\t: 0\ncore id\t: 0\n", "processor"}) {
            write_file("/proc/cpuinfo", text);
            discover_topology();  // must end, whatever it says
            EXPECT_EQ(0, supported_platform());
            EXPECT_EQ(0, cinfo.numCores);
        }
        const Hidden gone("/proc");
        EXPECT_EQ(-1, discover_topology());
    });
}

TEST_F(TopologyTest, NeedsTheRegisterDevice) {
    FakeNode node;
    inside(node, [&] {
        EXPECT_EQ(0, checkmsr());
        node.state().msr_device = fake::MsrDevice::kMissing;
        EXPECT_EQ(-1, checkmsr());
        EXPECT_EQ(0, supported_platform());
        EXPECT_EQ(0, discover_topology());
        EXPECT_EQ(0U, cinfo.nominal_frequency);
    });
}

TEST_F(TopologyTest, RegistersAreEightBytesAtTheirNumber) {
    FakeNode node;
    inside(node, [&] {
        uint64_t value = 5;
        EXPECT_EQ(0, wrmsr(3, 0x3C0, 0x123456789abcdef0));
        EXPECT_EQ(0, wrmsr(3, 0x3C1, 7));
        EXPECT_EQ(0, rdmsr(3, 0x3C0, &value));
        EXPECT_EQ(0x123456789abcdef0U, value);
        value = 5;
        EXPECT_EQ(-1, rdmsr(3, 0x777, &value)) << "no such register";
        EXPECT_EQ(-1, rdmsr(99, 0x3C0, &value)) << "no such processor";
        EXPECT_EQ(-1, wrmsr(-1, 0x3C0, 0));
        node.state().msr_device = fake::MsrDevice::kShortReads;
        EXPECT_EQ(-1, rdmsr(3, 0x3C0, &value));
        EXPECT_EQ(5U, value);
    });
}

}  // namespace
}  // namespace eas::test
