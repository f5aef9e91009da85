// easctl node and easctl doctor inside fake nodes: what they show, set and find missing.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/node/NodeTest.h"
#include "tests/tools/RunTool.h"
#include "tests/tools/SmallNode.h"

namespace eas::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using NodeCommands = SmallNodeTest;

/// A command is sampled, whose figure must be near; anew while it is not, since on a busy machine
/// the clock and what is counted are read apart.
ToolRun sampled_near(const char* member, double expected, double share, const char* command) {
    ToolRun run;
    double value = 0;
    for (int i = 0; i < 5 && std::abs(value - expected) > share * expected; ++i) {
        run = run_easctl(
            {"node", "sample", "--interval", "0.1", "--json", "--", "sh", "-c", command});
        value = nlohmann::json::parse(run.out).at("whole_run").at(member).get<double>();
    }
    EXPECT_NEAR(value, expected, share * expected);
    return run;
}

TEST_F(NodeCommands, ShowAndSteerANode) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&] {
        node.state().set_msr(0, 0x19C, 0x80000000 | 100 << 16);  // 5 degrees above the limit
        write_file("/sys/devices/platform/qpx.1/temp1_input", "-3000\n");
        expect_all({
            {{"node", "info"}, 0, "nominal      2400000 kHz, platform-information register"},
            {{"node", "sensors"}, 0, "-5  degrees C"},
            {{"node", "sensors"}, 0, "-3  degrees C"},
            {{"node", "frequency", "--set", "1600000", "--cpu", "1"}, 0, "1600000  userspace"},
            {{"node", "frequency", "--cpu", "0"}, 0, "2667000  performance"},
            {{"node", "frequency", "--set", "2000000"}, 6, "is not in the table"},
            {{"node", "frequency", "--governor", "user"}, 6, "\"user\" was refused"},
            {{"node", "sample", "--", "sh", "-c", "exit 3"}, 3, "cycles/instr"},
            {{"node", "sample", "--", "/no/such"}, 127, "/no/such: No such file"},
        });
        node.state().running_percent = 47;
        expect_all(
            {{{"doctor", "--node-only"}, 0, "15 events, each counted 47 % of the time and "}});
        node.state().running_percent = 100;
        // A change that fails leaves nothing behind, on no CPU.
        EXPECT_EQ(settings(), "performance\nuserspace\n1600000\n");
        const ToolRun run = sampled_near("power_w", 150, 0.1, "echo mixed in; sleep 1");
        EXPECT_GE(nlohmann::json::parse(run.out).at("samples").size(), 3U);
        EXPECT_THAT(run.err, HasSubstr("mixed in"));
        EXPECT_THAT(run.err, HasSubstr("energy: qpx: the platform's energy meter"));
        // Somebody samples already: his figures are left alone.
        node.state().set_msr(0, 0x391, 1);
        expect_all({{{"node", "sample", "--", "true"}, 6, "register 0x391 of cpu0 is not 0"},
                    {{"node", "sample", "--force", "--", "true"}, 0, "registers: memory"}});
        const Hidden registers("/dev/cpu");
        const Hidden meter("/sys/devices/platform");
        expect_all({{{"node", "info"}, 6, "missing"}});
        const auto sensors = document_of({"node", "sensors"}, 6);
        for (const auto& reading : sensors.at("sensors"))
            EXPECT_TRUE(reading.at("value").is_null()) << reading;
    });
}

/// Name of each link that easctl doctor finds broken, its status, and what is there.
std::vector<std::string> broken_links() {
    const auto run = run_easctl({"doctor", "--node-only", "--json"});
    std::vector<std::string> broken;
    const auto links = nlohmann::json::parse(run.out).at("links");
    for (const auto& link : links)
        if (link.at("status") != "ok")
            broken.push_back(link.at("name").get<std::string>() + " " +
                             link.at("status").get<std::string>() + ": " +
                             link.at("found").get<std::string>());
    EXPECT_EQ(run.code, broken.empty() ? 0 : 1);
    return broken;
}

TEST_F(NodeCommands, NameTheBrokenLinkAndItsRemedy) {
    FakeNode node(small_node());
    inside(node, [&] {
        EXPECT_THAT(broken_links(), IsEmpty());
        // The library's seventh event is refused; the two that libeasnode needs are not.
        node.state().counter_fails_at = static_cast<int>(node.state().counters.count) + 10;
        EXPECT_THAT(
            broken_links(),
            ElementsAre(HasSubstr("core counters of gethwrusage missing: event 7 of 15 (type 0, "
                                  "config 0x6): No such device; perf_event_paranoid is ")));
        node.state().counter_fails_at = -1;
        const fs::path meter = "/sys/devices/platform/qpx.1/energy1_input";
        const std::string reading = read_file(meter);
        fs::remove(meter);
        EXPECT_THAT(broken_links(), ElementsAre(HasSubstr("energy missing: no source serves")));
        write_file(meter, reading);
        // Root without the right to read what it may not read, as the tool is for others.
        let_file_modes_bind();
        const Hidden registers("/dev/cpu");
        write_file("/dev/cpu/0/msr", "");
        fs::permissions("/dev/cpu/0/msr", fs::perms::none);
        EXPECT_THAT(broken_links(),
                    ElementsAre(HasSubstr("memory traffic missing: no source serves"),
                                HasSubstr("/dev/cpu/0/msr denied: "),
                                HasSubstr("memory counters denied: /dev/cpu/0/msr, register")));
    });
}

TEST_F(NodeCommands, SetANodeUpForAJobAndGiveItBack) {
    NodeShape shape = small_node();
    shape.workload = {{2400000, 200, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&] {
        const std::string share = path("share");
        fs::create_directory(share);
        fs::permissions(share, fs::perms::owner_all);
        write_file(path("job.conf"), "cluster=c\ndefault_frequency=2400000\nlimit=8\nstate=" +
                                         path("state") + "\nnode_library=" EAS_NODE_LIBRARY "\n");
        const auto job = [&](std::vector<std::string> words, const char* number) {
            words.insert(words.begin(), "job");
            words.insert(words.end(), {"--job", number, "--config", path("job.conf")});
            return words;
        };
        const auto of_two = [&](std::vector<std::string> words, const char* number) {
            words.insert(words.end(), {"--nodes", "a,b", "--share", share, "--run", "r"});
            return job(words, number);
        };
        expect_all({{job({"begin", "--user", "0x"}, "7"), 2, "this node knows no such user"},
                    {job({"begin", "--user", "0", "--tag", "t"}, "7"), 0, "measuring for tag"}});
        EXPECT_EQ(settings(), "userspace\nuserspace\n2400000\n");
        ::sleep(1);
        expect_all({{job({"end", "--gpus"}, "7"), 1, "the job holds GPUs, which the meter (qpx,"}});
        EXPECT_EQ(settings().substr(0, 12), "performance\n");
        expect_all({{of_two({"begin", "--user", "0", "--tag", "t", "--node", "a"}, "8"), 0, ""},
                    {of_two({"end", "--node", "b"}, "9"), 0, ""}});
        EXPECT_TRUE(fs::exists(share + "/run-r")) << "the first node still needs it";
        expect_all({{of_two({"end", "--node", "a"}, "8"), 1, "no figures of 1 of 2 nodes"}});
        EXPECT_FALSE(fs::exists(share + "/run-r"));
    });
}

// Every CPU is opened and bound to by its number, and a set of the usual size ends at 1024.
TEST_F(NodeCommands, KnowMoreCpusThanACpuSetHolds) {
    NodeShape shape = fake::read_shape("xeon2023");
    shape.cores = 300;
    shape.workload = {{800000, 310, 1.0, 0.01}};
    for (const char* list : {"online", "possible", "present", "cpufreq/policy0/related_cpus"})
        shape.files.push_back({std::string("sys/devices/system/cpu/") + list,
                               fake::TreeEntry::Kind::file, 0444, "0-1199\n"});
    const auto of_another_clock = [](const fake::ShapeFile& file) {
        return file.path.find("/policy") != file.path.npos &&
               file.path.find("/policy0/") == file.path.npos;
    };
    shape.files.erase(std::remove_if(shape.files.begin(), shape.files.end(), of_another_clock),
                      shape.files.end());
    FakeNode node(shape);
    inside(node, [&] {
        sampled_near("giga_cycles_per_second", 600 * 3.8, 0.11, "sleep 0.2");
        expect_all({{{"model", "calibrate", "--seconds", "0.2", "--kernels", "stream", "--cpu-list",
                      "1100-1101", "--frequencies", "2000000", "--out", path("m.csv")},
                     0,
                     "2000000 kHz  stream"}});
    });
}

TEST_F(NodeCommands, SayWhatIsMissingOnADeniedNodeAndGatherItsFiles) {
    FakeNode node(fake::read_shape("denied"));
    inside(node, [&] {
        EXPECT_GE(broken_links().size(), 3U);  // no figure has a source
        expect_all({{{"node", "sample", "--", "true"}, 6, "the command was not run"},
                    {{"model", "calibrate", "--out", path("m.csv")}, 6, "energy: none"},
                    {{"node", "gather", path("denied.tar.gz")}, 0, "could not be read"}});
        EXPECT_FALSE(fs::exists(path("m.csv")));
    });
    FakeNode replayed(fake::read_shape(path("denied.tar.gz")));
    inside(replayed, [&] {
        const ToolRun info = run_easctl({"node", "info"});
        EXPECT_THAT(info.out, HasSubstr("Xeon(R) Gold 6334"));
        EXPECT_THAT(info.out, HasSubstr("intel_pstate by its limits"));
    });
}

// A meter that is gone, or was started anew meanwhile, even if it has caught up.
TEST_F(NodeCommands, ShowNoEnergyThatTheMeterDoesNotTell) {
    const std::pair<const char*, nlohmann::json> rows[] = {
        {"echo 3000000 >M", 2.0},
        {"echo 5 >M", nullptr},
        {"echo >M", nullptr},
        {"echo 5 >M; sleep 0.5; echo 3000000 >M", nullptr},
    };
    for (const auto& [changes, joules] : rows) {
        SCOPED_TRACE(changes);
        FakeNode node(small_node());
        inside(node, [&, changes = changes, joules = joules] {
            fs::create_symlink("/sys/devices/platform/qpx.1/energy1_input", path("M"));
            const auto json = document_of({"node", "sample", "--interval", "0.1", "--", "sh", "-c",
                                           "cd " + folder_.path().string() + "; " + changes});
            EXPECT_EQ(json.at("whole_run").at("energy_j"), joules) << json;
            EXPECT_EQ(json.at("samples").back().at("energy_j"), joules) << json;
            EXPECT_EQ(json.at("whole_run").at("power_w").is_null(), joules.is_null()) << json;
            fs::remove(path("M"));
        });
    }
}

struct MemoryCase {
    int model;
    const char* hidden;  // by removal
    const char* shown;   // in the link; empty: it holds
};

// Where the library counts 0 because it cannot count.
TEST_F(NodeCommands, ShowNoMemoryTrafficWhereItCannotBeCounted) {
    const char* const mcfg = "/sys/firmware/acpi/tables/MCFG";
    for (const MemoryCase& one : {MemoryCase{45, "", ""}, MemoryCase{62, "", ""},
                                  MemoryCase{45, "/dev/mem", "/dev/mem: No such file"},
                                  MemoryCase{62, mcfg, "MCFG: No such file"},
                                  MemoryCase{46, "", "no registers are known"}}) {
        SCOPED_TRACE(std::to_string(one.model) + one.hidden);
        FakeNode node(of_model(one.model));
        inside(node, [&] {
            ASSERT_TRUE(*one.hidden == '\0' || ::unlink(one.hidden) == 0) << std::strerror(errno);
            const bool counted = *one.shown == '\0';
            const auto run = run_easctl({"node", "sample", "--json", "--", "sleep", "0.2"});
            EXPECT_EQ(run.code, 0) << run.err;
            const auto whole = nlohmann::json::parse(run.out).at("whole_run");
            EXPECT_EQ(whole.at("memory_gb_per_second").is_number(), counted) << whole;
            EXPECT_TRUE(whole.at("giga_cycles_per_second").is_number()) << whole;
            expect_all({{{"node", "info"}, counted ? 0 : 6, one.shown}});
            if (counted)  // the sample before has given back what it programmed
                expect_all({{{"node", "sample", "--", "true"}, 0, "registers: memory"}});
            if (!counted) {
                expect_all({{{"model", "calibrate", "--out", path("m.csv")}, 6, "memory traffic"},
                            {{"node", "sample", "--", "true"}, 0, "missing"}});
                EXPECT_FALSE(fs::exists(path("m.csv")));
            }
        });
    }
    // The bus of the second socket holds no memory controller.
    FakeNode node(of_model(45));
    inside(node, [] {
        std::fstream memory("/dev/mem", std::ios::in | std::ios::out | std::ios::binary);
        memory.seekp(0x80000000 + (255LL << 20 | 16 << 15 | 4 << 12));
        memory.write("\0\0", 2);
        memory.close();
        expect_all({{{"doctor", "--node-only"}, 1, "socket 1 is not where it is looked for"},
                    {{"doctor", "--node-only"}, 1, "wrong   memory counters: "}});
    });
}

}  // namespace
}  // namespace eas::test
