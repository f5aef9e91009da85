// EnergyUtil against a cpufreq that behaves as the kernel's: what is written where, what the driver
// then does, and what is said about it.
#include <gmock/gmock.h>
#include <unistd.h>

#include <vector>

#include "common/node/BinFile.h"
#include "common/node/EnergyUtil.h"
#include "tests/node/NodeTest.h"

namespace eas::test {
namespace {

using fake::FreqDriver;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using FrequencyTest = NodeTest;

std::string attribute(int cpu, const std::string& name) {
    return read_file("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/" + name);
}

int set_governor(std::string name, int cpu = 0) {
    return EnergyUtil::set_cpu_governor(name.data(), cpu);
}

int set_all_governors(std::string name) {
    return EnergyUtil::set_all_cpu_governors(name.data());
}

TEST_F(FrequencyTest, FixesAFrequencyThroughTheUserspaceGovernor) {
    FakeNode node;
    inside(node, [&] {
        EXPECT_EQ(2667000, EnergyUtil::get_current_frequency(3));
        EXPECT_EQ(1, EnergyUtil::set_cpu_frequency(1600000, 3));
        EXPECT_THAT(writes(node),
                    ElementsAre("3 scaling_governor=userspace", "3 scaling_setspeed=1600000"));
        EXPECT_EQ("userspace\n", attribute(3, "scaling_governor"));
        EXPECT_EQ(1600000, EnergyUtil::get_current_frequency(3));
        EXPECT_EQ(2667000, EnergyUtil::get_current_frequency(2));
        for (const int khz : {2000000, 999999999}) {  // as many digits as a frequency may have
            EXPECT_EQ(1, EnergyUtil::set_cpu_frequency(khz, 3));
            EXPECT_THAT(writes(node), ElementsAre("3 scaling_setspeed=" + std::to_string(khz)));
        }
        for (const int bad : {0, -5, 1000000000})
            EXPECT_EQ(-1, EnergyUtil::set_cpu_frequency(bad, 3));
        EXPECT_EQ(-1, EnergyUtil::set_cpu_frequency(1600000, 99));
        EXPECT_EQ(-1, EnergyUtil::set_cpu_frequency(1600000, -1));
        EXPECT_EQ(-1, EnergyUtil::get_current_frequency(99));
        EXPECT_THAT(writes(node), IsEmpty());
    });
}

TEST_F(FrequencyTest, AGovernorIsWrittenUnlessItsNameBeginsThePresentOne) {
    FakeNode node;
    inside(node, [&] {
        EXPECT_EQ(1, set_governor("ondemand"));
        EXPECT_THAT(writes(node), ElementsAre("0 scaling_governor=ondemand"));
        for (const char* same : {"ondemand", "on", "", "ondemand\n"})
            EXPECT_EQ(1, set_governor(same));
        EXPECT_THAT(writes(node), IsEmpty());
        EXPECT_EQ(-1, set_governor("ondemands")) << "the driver knows no such governor";
        EXPECT_EQ("ondemand\n", attribute(0, "scaling_governor"));
        EXPECT_EQ(1, set_governor("powersave"));
        EXPECT_EQ(1600000, EnergyUtil::get_current_frequency(0));
        EXPECT_EQ(-1, set_governor("powersave", 99));
        EXPECT_EQ(-1, EnergyUtil::set_cpu_governor(nullptr, 0));
    });
}

TEST_F(FrequencyTest, CapsLeaveTheGovernorAlone) {
    FakeNode node;
    inside(node, [&] {
        EXPECT_EQ(1, EnergyUtil::set_cpu_frequency_cap(2133000, 5, CPU_FREQ_MAX));
        EXPECT_EQ(1, EnergyUtil::set_cpu_frequency_cap(1867000, 5, CPU_FREQ_MIN));
        EXPECT_THAT(writes(node),
                    ElementsAre("5 scaling_max_freq=2133000", "5 scaling_min_freq=1867000"));
        EXPECT_EQ("2133000\n", attribute(5, "scaling_max_freq"));
        EXPECT_EQ("1867000\n", attribute(5, "scaling_min_freq"));
        EXPECT_EQ(2133000, EnergyUtil::get_current_frequency(5));
        EXPECT_EQ(-1, EnergyUtil::set_cpu_frequency_cap(0, 5, CPU_FREQ_MAX));
        EXPECT_EQ(-1, EnergyUtil::set_cpu_frequency_cap(1000000000, 5, CPU_FREQ_MIN));
        EXPECT_EQ(-1, EnergyUtil::set_cpu_frequency_cap(1, 99, CPU_FREQ_MIN));
        EXPECT_THAT(writes(node), IsEmpty());
    });
}

TEST_F(FrequencyTest, TheWholeNodeIsSetAsFarAsItGoes) {
    FakeNode node;
    inside(node, [&] {
        EXPECT_EQ(1, EnergyUtil::set_all_cpu_freqs(1867000));
        EXPECT_EQ(32U, writes(node).size());
        EXPECT_EQ(1, EnergyUtil::set_all_cpu_freqs_cap(2400000, CPU_FREQ_MAX));
        EXPECT_EQ(1, set_all_governors("ondemand"));
        EXPECT_EQ(-1, EnergyUtil::set_all_cpu_governors(nullptr));
        for (int cpu = 0; cpu < 16; ++cpu) {
            EXPECT_EQ(2400000, EnergyUtil::get_current_frequency(cpu));
            EXPECT_EQ("2400000\n", attribute(cpu, "scaling_max_freq"));
            EXPECT_EQ("ondemand\n", attribute(cpu, "scaling_governor"));
        }
        // A processor without cpufreq in the middle: the others are still set.
        const std::string cpuinfo = "processor\t: 2\nprocessor\t: 40\nprocessor\t: 1\n";
        write_file("/proc/cpuinfo", cpuinfo);
        EXPECT_EQ(-1, EnergyUtil::set_all_cpu_freqs(1600000));
        EXPECT_EQ(1600000, EnergyUtil::get_current_frequency(1));
        EXPECT_EQ(1600000, EnergyUtil::get_current_frequency(2));
        EXPECT_EQ(2400000, EnergyUtil::get_current_frequency(3));
        write_file("/proc/cpuinfo", "");
        EXPECT_EQ(-1, EnergyUtil::set_all_cpu_freqs(1600000));
        EXPECT_EQ(-1, set_all_governors("performance"));
    });
}

TEST_F(FrequencyTest, ADriverWithItsOwnGovernorsRefusesAFrequency) {
    NodeShape shape;
    shape.driver = FreqDriver::no_userspace;
    FakeNode node(shape);
    inside(node, [&] {
        EXPECT_EQ(-1, EnergyUtil::set_cpu_frequency(1600000, 0));
        EXPECT_EQ("performance\n", attribute(0, "scaling_governor"));
        std::vector<int> steps;
        EXPECT_EQ(-1, EnergyUtil::get_available_freqs(steps, 0));
        EXPECT_EQ(2666600, EnergyUtil::get_nominal_freq(0)) << "no list: the register's value";
    });
}

TEST_F(FrequencyTest, ListsAreAppendedInTheKernelsOrder) {
    FakeNode node;
    inside(node, [] {
        std::vector<int> steps = {7};
        EXPECT_EQ(1, EnergyUtil::get_available_freqs(steps, 1));
        EXPECT_THAT(steps, ElementsAre(7, 2667000, 2400000, 2133000, 1867000, 1600000));
        EXPECT_EQ(-1, EnergyUtil::get_available_freqs(steps, 99));
        // What one reading of 1023 bytes takes of a longer list.
        write_file("/sys/devices/system/cpu/cpu1/cpufreq/scaling_available_frequencies",
                   std::string(1020, ' ') + "12345");
        EXPECT_EQ(1, EnergyUtil::get_available_freqs(steps, 1));
        EXPECT_EQ(123, steps.back());
        std::vector<int> cpus;
        write_file("/proc/cpuinfo", "processor\t: 3\nprocessors\nprocessor\t: 1\nmodel\t: 45\n");
        EXPECT_EQ(1, EnergyUtil::get_all_cpu_ids(cpus));
        EXPECT_THAT(cpus, ElementsAre(3, 0, 1)) << "a line without a number counts as 0";
        const Hidden gone("/proc");
        EXPECT_EQ(-1, EnergyUtil::get_all_cpu_ids(cpus));
        EXPECT_EQ(3U, cpus.size());
    });
}

TEST_F(FrequencyTest, TheNominalFrequencyIsTheNearestStepAndFoundOnce) {
    const struct {
        int ratio;
        std::vector<int> steps;
        int result;
    } rows[] = {
        {20, {2667000, 2400000}, 2667000},           // 2666600 by the register
        {18, {2667000, 2400000, 2133000}, 2400000},  // 2399940
        {1, {133430, 133230}, 133430},               // 133330: equally near, the first wins
        {1, {2667000, 2400000}, 2667000},            // none nearer than the value itself: the first
        {200, {26700000, 2400000}, 26700000},        // all eight bits of the ratio
        {0, {2667000}, -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.ratio);
        NodeShape shape;
        shape.nonturbo_ratio = row.ratio;
        shape.frequencies = row.steps;
        FakeNode node(shape);
        inside(node, [&] {
            EXPECT_EQ(row.ratio > 0 ? row.ratio * 133330 : -1, EnergyUtil::cal_nominal_freq(2));
            EXPECT_EQ(row.result, EnergyUtil::get_nominal_freq(2));
            node.state().msr_device = fake::MsrDevice::missing;
            EXPECT_EQ(-1, EnergyUtil::cal_nominal_freq(2));
            EXPECT_EQ(row.result, EnergyUtil::get_nominal_freq(2));
        });
    }
}

TEST_F(FrequencyTest, CountsTheNodesThreadsOnce) {
    FakeNode node;
    inside(node, [] {
        EXPECT_EQ(-1, EnergyUtil::get_node_threads(16));
        EXPECT_EQ(16, EnergyUtil::get_node_threads(15));
        write_file("/proc/cpuinfo", "");
        EXPECT_EQ(16, EnergyUtil::get_node_threads(0));
    });
}

// A daemon without standard input would get descriptor 0 for a file; that counts as a failure.
TEST_F(FrequencyTest, WholeFilesAreReadAndWrittenInOneCall) {
    FakeNode node;
    inside(node, [] {
        const char* const path = "/dev/file";
        write_file(path, "hello");
        std::array<char, 8> text{};
        EXPECT_EQ(5, bin_read_file(path, text.data(), 8));
        EXPECT_STREQ("hello", text.data());
        EXPECT_EQ(2, bin_read_file(path, text.data(), 3));
        EXPECT_STREQ("he", text.data());
        EXPECT_EQ(2, bin_write_file(path, text.data(), 2));
        EXPECT_EQ("hello", read_file(path));
        EXPECT_EQ(-1, bin_read_file("/dev", text.data(), 8));
        EXPECT_EQ(0, bin_write_file("/dev/no_such_file", text.data(), 2));
        const int keep = ::dup(0);
        ::close(0);
        const size_t open = open_descriptors().size();
        EXPECT_EQ(0, bin_read_file(path, text.data(), 8));
        EXPECT_EQ(0, bin_write_file(path, text.data(), 2));
        EXPECT_EQ(open, open_descriptors().size()) << "it is given back all the same";
        ::dup2(keep, 0);
        ::close(keep);
    });
}

}  // namespace
}  // namespace eas::test
