// What is read out of registers, counter descriptors and the lines of /proc/cpuinfo.
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

#include "base/UniqueFd.h"
#include "base/UniqueFile.h"
#include "common/EasMisc.h"
#include "common/node/CoreCounters.h"
#include "common/node/CpuTopology.h"
#include "common/node/CpuinfoLine.h"
#include "common/node/NodeThreads.h"

namespace eas {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

TEST(RegisterTest, BitsAreCutOutAndLimitedTo32) {
    constexpr unsigned long long kValue = 0x8899AABBCCDDEEFF;
    const struct {
        int high, low, result;
    } rows[] = {
        {23, 16, 0xDD},
        {15, 8, 0xEE},
        {0, 0, 1},
        {63, 63, 1},
        {63, 32, static_cast<int>(0x8899AABB)},
        {63, 1, static_cast<int>(0xE66EF77F)},
        {63, 0, static_cast<int>(0xCCDDEEFF)},
        {70, 3, static_cast<int>(0xCCDDEEFF)},
        {7, 8, 0},
        {3, 40, 0},
        {4, -2, 0},
        {70, 64, 0},
        {INT_MAX, INT_MIN, static_cast<int>(0xCCDDEEFF)},
        {INT_MIN, INT_MAX, 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.result, extract_bits(kValue, row.high, row.low))
            << row.high << ':' << row.low;
    }
}

// A pipe delivers the words in two pieces, then ends.
TEST(CounterTest, PiecesAreJoinedAndACutRecordCountsAsNothing) {
    const perf_counts_values counts{123456789012345678, 1000000007, 1000000000};
    const char* const bytes = reinterpret_cast<const char*>(&counts);
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    ASSERT_EQ(24, ::write(writer.get(), bytes, 24));
    ASSERT_EQ(10, ::write(writer.get(), bytes, 10));
    writer.reset();
    unsigned long long value = 5;
    EXPECT_EQ(0, read_core_counter(reader.get(), &value));
    EXPECT_EQ(123456789876543200U, value);
    EXPECT_EQ(0, read_core_counter(reader.get(), &value));
    EXPECT_EQ(0U, value);
    EXPECT_EQ(-EBADF, read_core_counter(writer.get(), &value));
}

TEST(CpuinfoLineTest, OnlyBlanksAndAColonStandBetweenKeyAndNumber) {
    const struct {
        const char* line;
        const char* key;
        int field, after_colon;  // 5: not read
    } rows[] = {
        {"model\t\t: 45\n", "model", 45, 45},
        {"model name\t: 7 Xeon\n", "model", 5, 7},
        {"model:+3", "model", 3, 3},
        {"model : -3", "model", -3, -3},
        {"model\t: +-3", "model", 5, 5},
        {"model\t: x", "model", 5, 5},
        {"model\t:\n", "model", 5, 5},
        {"model", "model", 5, 5},
        {"", "model", 5, 5},
        {": 3", "model", 5, 5},
        {"core id\t\t: 99999999999", "core id", INT_MAX, INT_MAX},
        {"core id\t\t: -99999999999", "core id", INT_MIN, INT_MIN},
    };
    for (const auto& row : rows) {
        int field = 5;
        int after_colon = 5;
        EXPECT_EQ(row.field != 5, parse_field(row.line, row.key, field)) << row.line;
        EXPECT_EQ(row.after_colon != 5, parse_after_colon(row.line, after_colon)) << row.line;
        EXPECT_EQ(row.field, field) << row.line;
        EXPECT_EQ(row.after_colon, after_colon) << row.line;
    }
}

// Destructors close descriptors, which a cancelled thread could not unwind through.
TEST(CancellationTest, ACancelledThreadFinishesTheCall) {
    bool finished = false;
    pthread_t thread;
    const auto body = [](void* out) -> void* {
        pthread_cancel(pthread_self());
        static char text[8];  // not on a stack that the address sanitizer would have to unpoison
        sysfs_read_file("energy1_input", text, sizeof text);
        *static_cast<bool*>(out) = true;
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, body, &finished));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_TRUE(finished);
    EXPECT_EQ(PTHREAD_CANCELED, result);
}

UniqueFile stream_of(std::string& text) {
    return UniqueFile(fmemopen(text.data(), text.size(), "r"));
}

TEST(TopologyReaderTest, NumbersBeyondTheTablesLeaveABlankRecord) {
    const std::string good =
        "processor\t: 0\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmodel\t: 45\n";
    for (const char* bad : {"physical id\t: 4", "physical id\t: -1", "physical id\t: x",
                            "core id\t: 64", "core id\t:", "processor\t: 99999999999\n"}) {
        std::string text = good + bad;
        EXPECT_EQ(-2, read_topology(stream_of(text).get())) << bad;
        EXPECT_EQ(0, cinfo.family) << bad;
        EXPECT_EQ(0, cinfo.numSockets) << bad;
        EXPECT_THAT(cinfo.cpuId, Each(-1)) << bad;
    }
    std::string same_again;
    for (int i = 0; i <= MAX_CPUS; ++i)
        same_again += "processor\t: 0\n";
    EXPECT_EQ(-2, read_topology(stream_of(same_again).get()));
}

TEST(TopologyReaderTest, NoCoreIdsGiveNoCoresAndNoDivision) {
    std::string text = "processor\t: 0\nphysical id\t: 3\nprocessor\t: 1\nphysical id\t: 3\n";
    EXPECT_EQ(0, read_topology(stream_of(text).get()));
    EXPECT_EQ(0, cinfo.numCores);
    EXPECT_EQ(2, cinfo.numThreads);
    EXPECT_EQ(1, cinfo.threads_per_core);
    EXPECT_THAT(cinfo.SId, ElementsAre(3, -1, -1, -1));
    EXPECT_THAT(cinfo.cpuId, ElementsAre(-1, -1, -1, 0));
}

TEST(NodeThreadsTest, FiguresThatDoNotFitAreRefused) {
    std::string text =
        "processor\t: 0\nphysical id\t: 0\nsiblings\t: 2147483647\ncpu cores\t: 1\n"
        "physical id\t: 1\n";
    EXPECT_EQ(-1, count_node_threads(stream_of(text).get(), 0));
    std::vector<int> cpuids{9};
    append_cpu_ids(stream_of(text).get(), cpuids);
    EXPECT_THAT(cpuids, ElementsAre(9, 0));
}

}  // namespace
}  // namespace eas
