// The record of a node: what it may hold and what not, that it is a node again when it is replayed,
// and that no reader opens a file that the record's list does not have.
#include <gmock/gmock.h>
#include <unistd.h>

#include <map>

#include "node/node.h"
#include "node/record/Paths.h"
#include "tests/node/NodeTest.h"
#include "tests/node/SmallNode.h"
#include "tests/support/ChildProcess.h"

namespace eas::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

using RecordTest = NodeTest;

struct Recorded {
    std::string content;
    int error, mode;
    bool is_link;
};
using Files = std::map<std::string, Recorded>;

/// For easnode_record: keeps each file, which must come behind the one before.
int keep(void* context, const easnode_file* file) {
    Files& files = *static_cast<Files*>(context);
    EXPECT_TRUE(files.empty() || files.rbegin()->first < file->path) << file->path;
    EXPECT_EQ(file->error != 0, file->content == nullptr);
    files[file->path] = {file->error == 0 ? std::string(file->content, file->length) : "",
                         file->error, file->mode, file->is_link != 0};
    return 0;
}

Files record(bool with_host_name = false) {
    Files files;
    EXPECT_EQ(EASNODE_OK, easnode_record(with_host_name ? 1 : 0, keep, &files));
    return files;
}

TEST_F(RecordTest, HoldsWhatIsReadAndNothingThatNamesTheNode) {
    NodeShape shape = small_node("epyc2023");
    put(shape, "/sys/class/hwmon/hwmon0/power1_average", "5000000");
    for (const char* secret : {"power1_serial_number", "power1_asset_tag"})
        put(shape, std::string("/sys/class/hwmon/hwmon0/") + secret, "SN12345");
    put(shape, policy_file(3, "energy_performance_preference"), "!EIO");
    FakeNode node(shape);
    inside(node, [] {
        write_file("/proc/cpuinfo", read_file("/proc/cpuinfo") + "Serial\t\t: 10000000a1b2\n");
        Files files = record();
        EXPECT_EQ("amd-pstate-epp\n", files[policy_file(0, "scaling_driver")].content);
        EXPECT_EQ(0644, files[policy_file(0, "scaling_min_freq")].mode);
        EXPECT_EQ(EIO, files[policy_file(3, "energy_performance_preference")].error);
        EXPECT_EQ("5000000\n", files["/sys/class/hwmon/hwmon0/power1_average"].content);
        EXPECT_EQ("resctrl /sys/fs/resctrl resctrl rw,relatime 0 0\n",
                  files["/proc/mounts"].content);
        EXPECT_THAT(files["/proc/cpuinfo"].content,
                    AllOf(HasSubstr("AMD EPYC"), Not(HasSubstr("Serial"))));
        for (const auto& [path, file] : files) {
            EXPECT_THAT(file.content, Not(HasSubstr("SN12345"))) << path;
            EXPECT_THAT(path, Not(HasSubstr("boot_id")));
            EXPECT_THAT(path, Not(HasSubstr("/batch/"))) << "the name of a user's group";
            EXPECT_THAT(path, Not(HasSubstr("hostname")));
        }
        EXPECT_EQ(1U, record(true).count("/proc/sys/kernel/hostname"));
        const auto stop = [](void*, const easnode_file*) { return 1; };
        EXPECT_EQ(EASNODE_STOPPED, easnode_record(0, stop, nullptr));
        EXPECT_EQ(EASNODE_BAD_ARGUMENT, easnode_record(0, nullptr, nullptr));
    });
}

std::string settings_of_all() {
    easnode_frequency* frequency = nullptr;
    std::string text(EASNODE_FREQUENCY_TEXT_SIZE, '\0');
    size_t length = 0;
    EXPECT_EQ(EASNODE_OK, easnode_frequency_open(nullptr, &frequency, nullptr));
    EXPECT_EQ(EASNODE_OK,
              easnode_frequency_save(frequency, 0, text.data(), text.size(), &length, nullptr));
    easnode_frequency_close(frequency);
    return text.substr(0, length);
}

/// Puts a record where an archive is made of it.
void lay_down(const Files& files, const fs::path& folder) {
    for (const auto& [path, file] : files) {
        const fs::path to = folder / fs::path(path).relative_path();
        fs::create_directories(to.parent_path());
        if (file.is_link)
            fs::create_symlink(file.content, to);
        else if (file.error == 0)
            write_file(to, file.content);
    }
}

TEST_F(RecordTest, IsANodeAgainWhenItIsReplayed) {
    const ScratchFolder scratch;
    const std::string folder = scratch.path("node"), archive = scratch.path("node.tar.gz"),
                      seen = scratch.path("seen");
    FakeNode node(small_node("epyc2019"));
    inside(node, [&] {
        lay_down(record(), folder);
        write_file(seen, settings_of_all());
    });
    const std::string pack = "tar -czf " + archive + " -C " + folder + " .";
    ASSERT_EQ(0, std::system(pack.c_str()));
    FakeNode replayed(fake::read_shape(archive));
    inside(replayed, [&] { EXPECT_EQ(read_file(seen), settings_of_all()); });
}

TEST_F(RecordTest, NoReaderOpensAFileThatTheListDoesNotHave) {
    for (const char* shape : {"xeon2023", "epyc2019", "epyc2023", "meter-only"}) {
        SCOPED_TRACE(shape);
        FakeNode node(small_node(shape));
        inside(node, [] {
            const auto paths = paths_opened_by([] {
                settings_of_all();
                easnode_topology topology{};
                topology.size = sizeof topology;
                easnode_topology_read(&topology);
                easnode_meter* meter = nullptr;
                easnode_meter_open(nullptr, &meter);
                easnode_reading reading{};
                reading.size = sizeof reading;
                easnode_meter_read(meter, &reading);
                easnode_meter_close(meter);
            });
            EXPECT_LT(20U, paths.size());
            for (const std::string& path : paths) {
                const bool kernel =
                    path.compare(0, 5, "/sys/") == 0 || path.compare(0, 6, "/proc/") == 0;
                EXPECT_TRUE(!kernel || node::is_listed(path.c_str())) << path;
            }
        });
    }
}

}  // namespace
}  // namespace eas::test
