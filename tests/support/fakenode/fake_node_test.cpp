// The fake node where it could quietly mislead the tests that trust it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

#include "base/UniqueFd.h"
#include "tests/support/ScratchFolder.h"
#include "tests/support/fakenode/FakeNode.h"

namespace eas::fake {
namespace {

using test::read_file;
using Words = std::array<uint64_t, 5>;

const std::string cpus = "/sys/devices/system/cpu/";
const std::string pmus = "/sys/bus/event_source/devices/";

class Shapes : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const std::string reason = FakeNode::unavailable(); !reason.empty())
            GTEST_SKIP() << reason;
    }

    static void inside(FakeNode& node, const std::function<void()>& body) {
        EXPECT_EQ(0, node.run([&] {
            body();
            return HasFailure() ? 1 : 0;
        }));
    }
};

/// 0, or the errno of writing the text as a shell's echo does.
int put(const std::string& path, const std::string& text) {
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!file.is_open())
        return errno;
    return ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())
               ? 0
               : errno;
}

/// A descriptor, or a negative errno.
int open_event(const std::string& pmu, uint64_t config, int cpu, int leader = -1) {
    perf_event_attr attr{};
    attr.size = sizeof attr;
    attr.type = static_cast<uint32_t>(std::atoi(read_file(pmus + pmu + "/type").c_str()));
    if (pmu == "cpu")
        attr.type = PERF_TYPE_HARDWARE;
    attr.config = config;
    attr.read_format = PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
    if (leader == -2)
        attr.read_format |= PERF_FORMAT_GROUP;
    const long fd =
        ::syscall(SYS_perf_event_open, &attr, -1, cpu, std::max(leader, -1), PERF_FLAG_FD_CLOEXEC);
    return fd < 0 ? -errno : static_cast<int>(fd);
}

/// Value, time enabled, time running; of a group the number of events first.
Words words_of(int event) {
    Words words{};
    EXPECT_GT(::read(event, words.data(), sizeof words), 0);
    return words;
}

void pass(int milliseconds) {
    ::usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

double ratio(uint64_t a, uint64_t b) {
    return static_cast<double>(a) / static_cast<double>(b);
}

TEST_F(Shapes, ABoxCountsForEveryOneWhoOpensItAndOnlyWhatItsCodeMeans) {
    FakeNode node(read_shape("xeon2023"));
    inside(node, [] {
        const int first = open_event("uncore_imc_0", 0xcf05, 0);
        const int again = open_event("uncore_imc_0", 0xcf05, 13);  // another CPU of that socket
        pass(100);
        EXPECT_GT(words_of(first)[0], 1000U);
        EXPECT_NEAR(1, ratio(words_of(first)[0], words_of(again)[0]), 0.2) << "summed, twice";
        EXPECT_EQ(-EINVAL, open_event("uncore_imc_0", 0x0304, 0)) << "an older processor's code";
        EXPECT_EQ(-EINVAL, open_event("uncore_imc_0", 0xcf05, -1));
        EXPECT_EQ(-EINVAL, open_event("uncore_imc_1", 0xcf05, 0, first)) << "a group of two PMUs";
        EXPECT_EQ(-ENODEV, open_event("uncore_imc_0", 0xcf05, 230)) << "not there";
    });
    FakeNode channels(read_shape("epyc2023"));
    inside(channels, [] {
        EXPECT_LT(0, open_event("amd_umc_12", 0x10a, 48));
        EXPECT_EQ(-ENODEV, open_event("amd_umc_12", 0x10a, 0)) << "the other socket's channel";
    });
}

TEST_F(Shapes, LimitsAreKeptAsTheDriverKeepsThem) {
    FakeNode node(read_shape("epyc2019"));
    inside(node, [] {
        const std::string policy = cpus + "cpu70/cpufreq/";
        const auto clock = [&] { return read_file(policy + "scaling_cur_freq"); };
        EXPECT_EQ("2893313\n", clock()) << "the highest entry stands for boost";
        EXPECT_EQ(0, put(cpus + "cpufreq/boost", "0"));
        EXPECT_EQ("2300000\n", clock());
        EXPECT_EQ(EINVAL, put(policy + "scaling_setspeed", "1500000")) << "not under userspace";
        EXPECT_EQ("<unsupported>\n", read_file(policy + "scaling_setspeed"));
        EXPECT_EQ(0, put(policy + "scaling_min_freq", "2000000"));
        EXPECT_EQ(EINVAL, put(policy + "scaling_max_freq", "1500000")) << "below the minimum";
        EXPECT_EQ(0, put(policy + "scaling_min_freq", "1"));
        EXPECT_EQ("1500000\n", read_file(policy + "scaling_min_freq"));
        EXPECT_EQ(EINVAL, put(policy + "scaling_max_freq", "1500000tail"));
        EXPECT_EQ(0, put(policy + "scaling_max_freq", "1900000"));
        EXPECT_EQ("1500000\n", clock());
        EXPECT_EQ(0, put(cpus + "cpufreq/boost", "1"));
        EXPECT_EQ("2300000\n", read_file(policy + "scaling_max_freq")) << "set anew";
        EXPECT_EQ(EACCES, put(policy + "scaling_driver", "other"));
    });
}

}  // namespace
}  // namespace eas::fake
