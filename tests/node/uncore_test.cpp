// Memory traffic: the register sequences of the older models, the memory-channel pages of the newer
// ones, each against what the node saw.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>

#include "base/UniqueFd.h"
#include "common/node/CpuTopology.h"
#include "common/node/MemoryChannels.h"
#include "common/node/UncoreCounters.h"
#include "common/node/UncoreMsrCounters.h"
#include "tests/node/NodeTest.h"
#include "tests/support/DescriptorLimit.h"

namespace eas::test {
namespace {

using ::testing::ElementsAreArray;

using UncoreTest = NodeTest;

// ---- register sequences ----

struct Step {
    bool write;
    uint32_t reg;
    uint64_t value;
};

const std::vector<Step> kProgramUncore = {
    {true, 0x395, 0},           {true, 0x394, 0},  {true, 0x3C0, 0},        {true, 0x3C1, 0},
    {true, 0x3B0, 0},           {true, 0x3B1, 0},  {true, 0x391, 0},        {true, 0x393, 0},
    {true, 0x396, 0},           {true, 0x1A6, 0},  {true, 0x395, 1},        {true, 0x3C0, 0x400000},
    {true, 0x3C1, 0x400000},    {false, 0x3C0, 0}, {true, 0x3C0, 0x41072C}, {false, 0x3C1, 0},
    {true, 0x3C1, 0x41072F},    {true, 0x3B0, 0},  {true, 0x3B1, 0},        {true, 0x391, 0},
    {true, 0x391, 0x10000001F},
};
const std::vector<Step> kProgramBoxes = {
    {true, 0xCA0, 0},      {true, 0xCB0, 0},      {true, 0xCE0, 0},
    {true, 0xCF0, 0},      {true, 0xC20, 0},      {true, 0xC32, 0},
    {true, 0xC60, 0},      {true, 0xC72, 0},      {true, 0xC00, 0x20000000},
    {true, 0xCAB, 0x5000}, {true, 0xCB0, 0x1A41}, {true, 0xCEB, 0x5000},
    {true, 0xCF0, 0x1A41}, {true, 0xC32, 0x19},   {true, 0xC72, 0x19},
    {true, 0xCB1, 0},      {true, 0xCF1, 0},      {true, 0xC33, 0},
    {true, 0xC73, 0},      {true, 0xCA0, 3},      {true, 0xCE0, 3},
    {true, 0xC20, 2},      {true, 0xC60, 2},      {true, 0xC00, 0x10000000},
};
const std::vector<Step> kReadUncore = {{false, 0x3B0, 0}, {false, 0x3B1, 0}};
const std::vector<Step> kReadBoxes = {
    {false, 0xCB1, 0}, {false, 0xCF1, 0}, {false, 0xC33, 0}, {false, 0xC73, 0}};
const std::vector<Step> kStopUncore = {{true, 0x391, 0}};
const std::vector<Step> kStopBoxes = {
    {true, 0xCA0, 0}, {true, 0xCE0, 0}, {true, 0xC20, 0}, {true, 0xC60, 0}, {true, 0xC00, 0}};

std::string line_of(int cpu, const Step& step) {
    std::array<char, 80> text;
    std::snprintf(text.data(), text.size(), "cpu %d %s %#x %#llx", cpu,
                  step.write ? "write" : "read", step.reg,
                  step.write ? static_cast<unsigned long long>(step.value) : 0ULL);
    return text.data();
}

/// What the node saw since the last call; an access from a thread on other CPUs says so.
std::vector<std::string> accesses(FakeNode& node) {
    std::vector<std::string> lines;
    for (const fake::MsrAccess& access : node.state().msr_log) {
        lines.push_back(line_of(access.cpu, {access.write, access.reg, access.value}));
        fake::CpuMask only{};
        only[static_cast<size_t>(access.cpu) / 64] = uint64_t{1} << (access.cpu % 64);
        if (access.affinity != only)
            lines.back() += " from elsewhere";
    }
    node.state().msr_log.clear();
    return lines;
}

std::vector<std::string> on_cpus(const std::vector<int>& cpus, const std::vector<Step>& steps) {
    std::vector<std::string> lines;
    for (const int cpu : cpus)
        for (const Step& step : steps)
            lines.push_back(line_of(cpu, step));
    return lines;
}

TEST_F(UncoreTest, ProgramsReadsAndStopsTheRegistersOnEachSocketsCpu) {
    for (const int model : {26, 30, 37, 44, 47}) {
        SCOPED_TRACE(model);
        const bool boxes = model == 47;
        FakeNode node(of_model(model, 4));
        inside(node, [&] {
            const std::vector<int> cpus = {0, 4, 8, 12};
            ASSERT_EQ(0, discover_topology());
            accesses(node);
            // Bits that a read-back returns beside what was written: only 31..16 may stay.
            node.state().msr_stray_bits = 0xdead00000001beef;
            EXPECT_EQ(0, init_uncore_counters());
            node.state().msr_stray_bits = 0;
            EXPECT_THAT(accesses(node),
                        ElementsAreArray(on_cpus(cpus, boxes ? kProgramBoxes : kProgramUncore)));

            uint64_t expected = 0, count = 1;
            const std::vector<Step>& reads = boxes ? kReadBoxes : kReadUncore;
            for (const int cpu : cpus)
                for (const Step& read : reads) {
                    node.state().set_msr(cpu, read.reg, count);
                    expected += 64 * count;
                    count *= 5;
                }
            hwrusage usage{};
            usage.netbytes_xferred = 7;
            EXPECT_EQ(0, read_uncore_counters(&usage));
            EXPECT_EQ(expected, usage.membytes_xferred);
            EXPECT_EQ(0U, usage.netbytes_xferred);
            EXPECT_THAT(accesses(node), ElementsAreArray(on_cpus(cpus, reads)));

            for (unsigned socket = 0; socket < 4; ++socket)
                EXPECT_EQ(0, cleanup_uncore(socket));
            EXPECT_THAT(accesses(node),
                        ElementsAreArray(on_cpus(cpus, boxes ? kStopBoxes : kStopUncore)));
        });
    }
}

TEST_F(UncoreTest, OtherModelsAreLeftAloneAndUnreadableRegistersCountAsNothing) {
    for (const int model : {42, 46, 47}) {
        SCOPED_TRACE(model);
        FakeNode node(of_model(model));
        inside(node, [&] {
            ASSERT_EQ(0, discover_topology());
            accesses(node);
            if (model == 47)
                node.state().msr_device = fake::MsrDevice::short_reads;
            EXPECT_EQ(0, init_uncore_counters());
            hwrusage usage{};
            usage.membytes_xferred = 5;
            EXPECT_EQ(0, read_uncore_counters(&usage));
            EXPECT_EQ(0U, usage.membytes_xferred);
            EXPECT_EQ(0, cleanup_uncore(0));
            EXPECT_EQ(model != 47, accesses(node).empty());
        });
    }
}

// ---- memory channels ----

const std::pair<unsigned, unsigned> kChannels[] = {{16, 4}, {16, 5}, {16, 0}, {16, 1},
                                                   {30, 4}, {30, 5}, {30, 0}, {30, 1}};

uint64_t page_of(const NodeShape& shape, unsigned socket, size_t channel) {
    const unsigned bus = socket == 0 ? 127 : 255;
    const auto [device, function] = kChannels[channel];
    return shape.mcfg_base + (uint64_t{bus} << 20 | device << 15 | function << 12);
}

TEST_F(UncoreTest, ProgramsAndSumsTheMemoryChannels) {
    for (const int model : {45, 62}) {
        SCOPED_TRACE(model);
        NodeShape shape = of_model(model, 3);
        shape.mcfg_base = model == 45 ? 0x80000000 : 0x3C0000000;
        FakeNode node(shape);
        inside(node, [&] {
            const UniqueFd memory(::open("/dev/mem", O_RDWR | O_CLOEXEC));
            ASSERT_EQ(0, discover_topology());
            ASSERT_EQ(0, init_uncore_counters());
            uint64_t reads = 1, sum = 0;
            for (unsigned socket = 0; socket < 3; ++socket) {
                EXPECT_EQ(8, mchn[socket].num_channels);
                for (size_t channel = 0; channel < 8; ++channel) {
                    const uint64_t page = page_of(shape, socket, channel);
                    uint32_t control = 0;
                    EXPECT_EQ(4,
                              ::pread(memory.get(), &control, 4, static_cast<off_t>(page + 0xDC)));
                    EXPECT_EQ(0x400C04U, control) << channel;
                    // Sockets 1 and 2 are both on bus 255: their counts are the same ones.
                    if (socket == 2)
                        continue;
                    const uint64_t counts[] = {reads, 3 * reads};
                    EXPECT_EQ(16, ::pwrite(memory.get(), counts, sizeof counts,
                                           static_cast<off_t>(page + 0xA0)));
                    sum += (socket == 0 ? 1 : 2) * 4 * reads;
                    reads = reads * 4 + 1;
                }
            }
            hwrusage usage{};
            EXPECT_EQ(0, read_uncore_counters(&usage));
            EXPECT_EQ(sum * 64, usage.membytes_xferred);
            EXPECT_EQ(0U, getmcreads(max_sockets) + getmcwrites(max_sockets));
            EXPECT_EQ(0, get_memory_channels(max_sockets) + program_memory_channels(max_sockets) +
                             cleanup_memory_channels(max_sockets));
            for (unsigned socket = 0; socket < 3; ++socket)
                EXPECT_EQ(8, cleanup_uncore(socket));
            EXPECT_EQ(0, read_uncore_counters(&usage));
            EXPECT_EQ(0U, usage.membytes_xferred);
            for (unsigned socket = 0; socket < 3; ++socket)
                EXPECT_EQ(8, cleanup_uncore(socket));
        });
    }
}

// The n-th descriptor fails, for every n: whatever was mapped is given back, nothing twice.
TEST_F(UncoreTest, ChannelsThatCannotBeMappedAreGivenBack) {
    FakeNode node(of_model(45));
    inside(node, [&] {
        ASSERT_EQ(0, discover_topology());
        for (int spare = 0; spare <= 17; ++spare) {
            SCOPED_TRACE(spare);
            const std::string before = footprint();
            const int result = [&] {
                const DescriptorLimit limit(spare);
                return init_uncore_counters();
            }();
            // 16 descriptors stay open, and one more reads the table.
            EXPECT_EQ(spare < 17 ? -1 : 0, result);
            if (spare >= 9 && spare < 17) {
                EXPECT_EQ(nullptr, mchn[0].mmaddr[0]) << "the sockets before are given back";
                EXPECT_EQ(-1, mchn[0].fd[7]);
            }
            hwrusage usage{};
            EXPECT_EQ(0, read_uncore_counters(&usage));
            for (unsigned socket = 0; socket < 2; ++socket)
                cleanup_uncore(socket);
            EXPECT_EQ(before, footprint());
            EXPECT_EQ(std::string::npos, read_file("/proc/self/maps").find("/dev/mem"));
        }
    });
}

TEST_F(UncoreTest, NeedsTheTableAndTheMemoryDevice) {
    FakeNode node(of_model(62));
    inside(node, [&] {
        const std::string table_path = "/sys/firmware/acpi/tables/MCFG";
        const std::string table = read_file(table_path);
        ASSERT_EQ(0, discover_topology());
        const auto fails = [] {
            int fd = 0;
            EXPECT_EQ(MAP_FAILED, mmap_memory_channel(127, 16, 4, &fd));
            if (fd >= 0)
                ::close(fd);
            EXPECT_EQ(-1, init_uncore_counters());
            for (unsigned socket = 0; socket < 2; ++socket)
                cleanup_uncore(socket);
            return fd;
        };
        for (const size_t length : {size_t{0}, size_t{44}, size_t{51}}) {
            write_file(table_path, table.substr(0, length));
            EXPECT_GE(fails(), 0) << length;
        }
        write_file(table_path, table);
        {
            const Hidden gone("/sys/firmware");
            EXPECT_GE(fails(), 0) << "the memory device stays open for the caller";
        }
        std::filesystem::rename("/dev/mem", "/dev/mem.away");
        EXPECT_EQ(-1, fails());
        std::filesystem::rename("/dev/mem.away", "/dev/mem");
        EXPECT_EQ(0, init_uncore_counters());
        EXPECT_EQ(0, init_uncore_counters()) << "what was mapped before is given back";
        for (unsigned socket = 0; socket < 2; ++socket)
            cleanup_uncore(socket);
    });
}

// A page that traps: each access is single-stepped and written down.
char* traced_page;
std::vector<Step> traced;

void on_access(int, siginfo_t* info, void* context) {
    const auto offset = static_cast<char*>(info->si_addr) - traced_page;
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    if (offset < 0 || offset >= 4096 || traced.size() == traced.capacity())
        ::_exit(3);
    traced.push_back({(registers[REG_ERR] & 2) != 0, static_cast<uint32_t>(offset), 0});
    registers[REG_EFL] |= 0x100;  // trap after the next instruction
    ::mprotect(traced_page, 4096, PROT_READ | PROT_WRITE);
}

void on_step(int, siginfo_t*, void* context) {
    std::memcpy(&traced.back().value, traced_page + traced.back().reg, 4);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~0x100;
    ::mprotect(traced_page, 4096, PROT_NONE);
}

TEST(MemoryChannelTest, EveryStoreOfTheSequenceReachesThePageInOrder) {
    const std::vector<Step> sequence = {
        {true, 0xF4, 0x10000},  {true, 0xF4, 0x10100},  {false, 0xF4, 0},
        {true, 0xD8, 0x400000}, {true, 0xD8, 0x400304}, {true, 0xDC, 0x400000},
        {true, 0xDC, 0x400C04}, {true, 0xF4, 0x10102},  {true, 0xF4, 0x10000},
    };
    traced_page =
        static_cast<char*>(::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    traced.reserve(64);
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = on_access;
    ::sigaction(SIGSEGV, &action, nullptr);
    action.sa_sigaction = on_step;
    ::sigaction(SIGTRAP, &action, nullptr);
    mchn[2].mmaddr[0] = traced_page;
    mchn[2].num_channels = 1;
    EXPECT_EQ(0, program_memory_channels(2));
    ::signal(SIGSEGV, SIG_DFL);
    ::signal(SIGTRAP, SIG_DFL);
    EXPECT_THAT(on_cpus({0}, traced), ElementsAreArray(on_cpus({0}, sequence)));
}

}  // namespace
}  // namespace eas::test
