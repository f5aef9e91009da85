// The energy meter's files: which device is read, and what becomes of what stands in them.
#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>

#include "common/node/EasMisc.h"
#include "common/node/EnergySensors.h"
#include "tests/node/NodeTest.h"

namespace eas::test {
namespace {

using SensorsTest = NodeTest;

const std::string kFirst = "/sys/devices/platform/qpx.1/", kSecond = "/sys/devices/platform/qpx.0/";
const char* const kFiles[] = {"energy1_input",  "energy2_input",
                              "power1_average", "power1_average_interval",
                              "power2_average", "power2_average_interval",
                              "power3_average", "power4_average",
                              "power5_average", "power6_average",
                              "power7_average", "power_cap",
                              "temp1_input",    "temp2_input"};

std::array<unsigned long, 14> all_sensors() {
    enrusage usage;
    std::memset(&usage, 0x55, sizeof usage);
    EXPECT_EQ(0, getenrusage(RUSAGE_SELF, &usage));
    std::array<unsigned long, 14> values;  // in the order in which daemons were built against them
    EXPECT_EQ(sizeof values, sizeof usage);
    std::memcpy(values.data(), &usage, sizeof values);
    return values;
}

TEST_F(SensorsTest, ReadsEachFieldFromTheDeviceThatHasItsFile) {
    FakeNode node;
    inside(node, [] {
        std::array<unsigned long, 14> second{}, mixed{};
        for (size_t i = 0; i < 14; ++i) {
            second[i] = mixed[i] = 100 + i;
            write_file(kSecond + kFiles[i], std::to_string(second[i]) + "\n");
        }
        mixed[0] = 1000000;  // what the node's own meter says
        EXPECT_EQ(mixed, all_sensors());
        for (size_t i = 0; i < 14; i += 3)
            write_file(kFirst + kFiles[i], std::to_string(mixed[i] = 500 + i) + "\n");
        EXPECT_EQ(mixed, all_sensors());
        EXPECT_EQ(mixed[13], sysfs_get_one_value(13));
        EXPECT_EQ(0U, sysfs_get_one_value(14));
        EXPECT_EQ(0U, sysfs_get_one_value(UINT_MAX));
        enrusage energy{};
        energy.power_cap = 9;
        EXPECT_EQ(0, getearusage(RUSAGE_CHILDREN, &energy));
        EXPECT_EQ(mixed[0], energy.energy1_input);
        EXPECT_EQ(9U, energy.power_cap);
        std::filesystem::remove_all(kFirst);
        EXPECT_EQ(second, all_sensors());
        std::filesystem::remove_all(kSecond);
        EXPECT_EQ((std::array<unsigned long, 14>{}), all_sensors());
        EXPECT_EQ(0, verify_qpx());
    });
}

TEST_F(SensorsTest, TakesNumbersInEveryBaseAndNothingElse) {
    const std::pair<std::string, unsigned long> rows[] = {
        {"123456\n", 123456},
        {"0x1F\n", 31},
        {"0777\n", 511},
        {" 42", 42},
        {"18446744073709551615\n", ULONG_MAX},
        {"18446744073709551616\n", 0},  // one too many
        {"7\n", 7},                     // the overflow before does not spoil it
        {"12 apples\n", 12},
        {"apples\n", 0},
        {"", 0},
        {"\n", 0},
        {std::string(300, ' ') + "5", 0},  // behind what one read of the buffer reaches
    };
    FakeNode node;
    inside(node, [&] {
        for (const auto& [text, value] : rows) {
            write_file(kFirst + kFiles[0], text);
            EXPECT_EQ(value, sysfs_get_one_value(0)) << text;
        }
        write_file(kFirst + kFiles[0], "8\n");
        errno = ERANGE;
        EXPECT_EQ(8U, sysfs_get_one_value(0));
        EXPECT_EQ(8, verify_qpx());
        write_file(kFirst + kFiles[0], "4294967296\n");
        EXPECT_EQ(0, verify_qpx()) << "cut to an int";
    });
}

TEST_F(SensorsTest, ReadsTextUpToTheBuffer) {
    FakeNode node;
    inside(node, [] {
        std::array<char, 4> text{'x', 'x', 'x', 'x'};
        EXPECT_EQ(3U, sysfs_read_file("energy1_input", text.data(), text.size()));
        EXPECT_STREQ("100", text.data());
        for (const char* name : {"no_such_sensor", "", "../qpx.1"})  // folders cannot be read
            EXPECT_EQ(0U, sysfs_read_file(name, text.data(), text.size())) << name;
        EXPECT_EQ(0U, sysfs_read_file(std::string(400, 'a').c_str(), text.data(), text.size()));
        EXPECT_EQ(0U, sysfs_read_file("energy1_input", text.data(), 1));
        EXPECT_EQ(0U, sysfs_read_file("energy1_input", text.data(), 0));
        EXPECT_EQ(0U, sysfs_read_file("energy1_input", nullptr, 4));
        EXPECT_EQ(0U, sysfs_read_file(nullptr, text.data(), text.size()));
        EXPECT_EQ(-2, getenrusage(RUSAGE_SELF, nullptr) + getearusage(RUSAGE_SELF, nullptr));
        EXPECT_STREQ("100", text.data());
    });
}

}  // namespace
}  // namespace eas::test
