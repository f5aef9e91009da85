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

/// A descriptor, or a negative errno.
int open_event(const std::string& pmu, uint64_t config, int cpu, int leader = -1) {
    perf_event_attr attr{};
    attr.size = sizeof attr;
    attr.type = static_cast<uint32_t>(std::atoi(read_file(pmus + pmu + "/type").c_str()));
    attr.config = config;
    attr.read_format = PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
    const long fd = ::syscall(SYS_perf_event_open, &attr, -1, cpu, leader, PERF_FLAG_FD_CLOEXEC);
    return fd < 0 ? -errno : static_cast<int>(fd);
}

uint64_t count_of(int event) {
    std::array<uint64_t, 3> words{};  // value, time enabled, time running
    EXPECT_GT(::read(event, words.data(), sizeof words), 0);
    return words[0];
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
        EXPECT_GT(count_of(first), 1000U);
        EXPECT_NEAR(1, ratio(count_of(first), count_of(again)), 0.2) << "summed, twice";
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

}  // namespace
}  // namespace eas::fake
