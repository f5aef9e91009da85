// What is read out of registers, counter descriptors and the lines of /proc/cpuinfo.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

#include "base/UniqueFd.h"
#include "base/UniqueFile.h"
#include "common/node/CoreCounters.h"
#include "common/node/CpuTopology.h"
#include "common/node/CpuinfoLine.h"
#include "common/node/EasMisc.h"
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

TEST(CounterTest, ScalesByTheTimeOnTheHardwareWhatComesInPieces) {
    using Words = std::array<uint64_t, 3>;  // value, enabled, running
    const std::pair<Words, unsigned long long> rows[] = {
        {{1000, 100, 50}, 2000},
        {{1000, 50, 100}, 1000},
        {{1000, 100, 0}, 0},
        {{3, 3, 2}, 5},                                    // 4.5 rounds up
        {{(1ULL << 53) + 1, 7, 7}, (1ULL << 53) + 1},      // unscaled: no double in between
        {{1ULL << 62, 2, 1}, 1ULL << 63},                  // the top bit survives
        {{0xC000000000000000, 4, 3}, 0xFFFFFFFFFFFFFFFF},  // beyond the last value
    };
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_DIRECT | O_CLOEXEC));  // a read ends where a write did
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    unsigned long long value = 5;
    for (const auto& [words, result] : rows) {
        for (const uint64_t word : words)
            ASSERT_EQ(8, ::write(writer.get(), &word, 8));
        EXPECT_EQ(0, read_core_counter(reader.get(), &value));
        EXPECT_EQ(result, value) << words[0];
    }
    ASSERT_EQ(10, ::write(writer.get(), rows, 10));
    writer.reset();
    for (const char* left : {"a cut record", "none"}) {
        EXPECT_EQ(0, read_core_counter(reader.get(), &(value = 5))) << left;
        EXPECT_EQ(0U, value) << left;
    }
    EXPECT_EQ(-EBADF, read_core_counter(-1, &value));
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

/// What is made of a processor: the result of the reading, and whether it can be sampled.
std::pair<int, bool> verdict(const std::string& vendor, int family, int model) {
    std::string text =
        "processor\t: 0\nvendor_id\t: " + vendor + "\ncpu family\t: " + std::to_string(family) +
        "\nmodel\t\t: " + std::to_string(model) + "\nprocessor\t: 1\nvendor_id\t: not looked at\n";
    const auto [result, processors] = read_topology(stream_of(text).get());
    return {result, can_be_sampled(processors)};
}

TEST(TopologyReaderTest, KnowsElevenModelsOfWhichNineCanBeSampled) {
    for (const int model : {26, 30, 37, 42, 44, 45, 46, 47, 62})
        EXPECT_EQ(std::pair(0, true), verdict("GenuineIntel", 6, model)) << model;
    for (const int model : {23, 28})
        EXPECT_EQ(std::pair(0, false), verdict("GenuineIntel", 6, model)) << model;
    EXPECT_EQ(std::pair(-2, false), verdict("GenuineIntel", 6, 63));
    EXPECT_EQ(std::pair(-2, false), verdict("GenuineIntel", 15, 45));
    EXPECT_EQ(std::pair(-2, false), verdict("GenuineIntelX", 6, 45));
    EXPECT_EQ(std::pair(-2, false), verdict("AuthenticAMD", 6, 45));
}

TEST(TopologyReaderTest, NumbersBeyondTheTablesLeaveABlankRecord) {
    const std::string good =
        "processor\t: 0\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmodel\t: 45\n";
    for (const char* bad :
         {"physical id\t: 4", "physical id\t: -1", "physical id\t: x", "core id\t: 64",
          "core id\t: -1", "core id\t:", "processor\t: 128", "processor\t: 99999999999\n"}) {
        std::string text = good + bad;
        const auto [result, processors] = read_topology(stream_of(text).get());
        EXPECT_EQ(-2, result) << bad;
        EXPECT_EQ(0, processors.family) << bad;
        EXPECT_EQ(0, processors.numSockets) << bad;
        EXPECT_THAT(processors.cpuId, Each(-1)) << bad;
    }
    std::string same_again;
    for (int i = 0; i <= max_cpus; ++i)
        same_again += "processor\t: 0\n";
    EXPECT_EQ(-2, read_topology(stream_of(same_again).get()).result);
}

TEST(TopologyReaderTest, NoCoreIdsGiveNoCoresAndNoDivision) {
    std::string text = "processor\t: 0\nphysical id\t: 3\nprocessor\t: 1\nphysical id\t: 3\n";
    const auto [result, processors] = read_topology(stream_of(text).get());
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, processors.numCores);
    EXPECT_EQ(2, processors.numThreads);
    EXPECT_EQ(1, processors.threads_per_core);
    EXPECT_THAT(processors.SId, ElementsAre(3, -1, -1, -1));
    EXPECT_THAT(processors.cpuId, ElementsAre(-1, -1, -1, 0));
    EXPECT_EQ(0, cinfo.numThreads) << "a look changes nothing that a sampler uses";
}

TEST(NodeThreadsTest, AreThreadsPerCoreTimesCoresTimesSockets) {
    const std::string block = "processor\t: 3\nphysical id\t: 0\nsiblings\t: ";
    const std::pair<std::string, int> rows[] = {
        {block + "8\ncpu cores\t: 4\nphysical id\t: 1\nphysical id\t: 1\n", 16},
        {block + "6\ncpu cores\t: 4\n", 4},  // the division comes first
        {"physical id\t: 256\nphysical id\t: -1\nphysical id\t: 255\n" + block +
             "6\ncpu cores\t: 4\n",
         8},
        {block + "6\ncpu cores\t: 0\n", -1},
        {block + "6\n", -1},
        {"processor\t: 4\nsiblings\t: 6\ncpu cores\t: 4\n", -1},
        {block + "2147483647\ncpu cores\t: 1\nphysical id\t: 1\n", -1},
    };
    for (auto [text, result] : rows)
        EXPECT_EQ(result, count_node_threads(stream_of(text).get(), 3)) << text;
}

}  // namespace
}  // namespace eas
