// easctl model calibrate and easctl node inside fake nodes: known coefficients come back through
// the simulated hardware, an interrupted calibration leaves the node as it was and goes on later.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/node/NodeTest.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchFolder.h"
#include "tests/tools/Measurements.h"
#include "tests/tools/RunTool.h"

namespace eas::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Calibration : public NodeTest {
  protected:
    [[nodiscard]] std::string path(const char* name) const { return folder_.path(name); }

    /// One core per CPU, so that every thread of a kernel is counted.
    static NodeShape small_node() {
        NodeShape shape = of_model(44, 1, 2, 1);
        shape.frequencies = {2667000, 2400000, 1600000};
        shape.nonturbo_ratio = 18;  // 2400000
        return shape;
    }

    ScratchFolder folder_;
};

/// Measures each kernel on a node of its own, since the simulated work depends on the frequency
/// only; all into one file.
void measure_into(const std::string& file, NodeShape shape) {
    for (const KnownKernel& kernel : kernels) {
        shape.workload.clear();
        for (const KnownRow& row : coefficients)
            shape.workload.push_back({row.khz, row.watts(kernel), row.pace(kernel), kernel.lines});
        FakeNode node(shape);
        inside(node, [&] {
            const auto run = document_of({"model", "calibrate", "--out", file, "--seconds", "0.4",
                                          "--kernels", kernel.name});
            EXPECT_EQ(run.at("measured").size(), std::size(coefficients));
        });
    }
}

bool is_near(double found, double known, double tolerance) {
    return std::abs(found - known) <= tolerance;
}

/// What of a fitted model is far from the one that was simulated.
std::string misses_of(const std::vector<KnownRow>& found) {
    std::ostringstream misses;
    for (std::size_t i = 0; i < found.size(); ++i) {
        const KnownRow& row = coefficients[i];
        for (const KnownKernel& kernel : kernels) {
            const double watts = row.watts(kernel);
            const double pace = row.pace(kernel);
            if (row.khz != 2400000 && (!is_near(found[i].watts(kernel), watts, 0.05 * watts) ||
                                       !is_near(found[i].pace(kernel), pace, 0.08 * pace + 0.05)))
                misses << row.khz << ' ' << kernel.name << ": " << found[i].watts(kernel) << " W, "
                       << found[i].pace(kernel) << "; ";
        }
    }
    return misses.str();
}

// Short runs on a busy machine: counters that are read one after the other need not agree, so it
// has more than one try.
TEST_F(Calibration, FindsTheCoefficientsOfASimulatedNode) {
    std::string misses = "not fitted";
    for (int attempt = 0; attempt < 4 && !misses.empty(); ++attempt) {
        fs::remove(path("m.csv"));
        fs::remove(path("c.txt"));
        measure_into(path("m.csv"), small_node());
        const auto fit =
            run_easctl({"model", "fit", path("m.csv"), "-o", path("c.txt"), "--max-error", "20"});
        EXPECT_THAT(fit.out + fit.err, HasSubstr("2400000 kHz, the node's nominal one"));
        const std::vector<KnownRow> found = rows_of(path("c.txt"));
        ASSERT_EQ(found.size(), std::size(coefficients));
        misses = fit.code == 0 ? misses_of(found) : fit.err;
    }
    EXPECT_EQ(misses, "");
}

std::string cpufreq(int cpu, const char* file) {
    return read_file("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/" + file);
}

/// Governor of the first CPU, governor and frequency of the second.
std::string settings() {
    return cpufreq(0, "scaling_governor") + cpufreq(1, "scaling_governor") +
           cpufreq(1, "scaling_cur_freq");
}

/// Starts a calibration, ends it by a signal once it added runs; its exit code, as a shell has it.
int interrupted_by(int signal_number, const std::string& file) {
    const auto lines = [&] {
        const std::string text = read_file(file);
        return std::count(text.begin(), text.end(), '\n');
    };
    const auto enough = lines() + 3;  // there may be no header yet
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);
        ::execl(EAS_EASCTL, "easctl", "model", "calibrate", "--quiet", "--seconds", "0.2", "--out",
                file.c_str(), nullptr);
        ::_exit(127);
    }
    while (lines() < enough && ::waitpid(child, nullptr, WNOHANG) == 0)
        ::usleep(10000);
    EXPECT_EQ(cpufreq(0, "scaling_governor"), "userspace\n");
    ::kill(child, signal_number);
    const int code = exit_status(child);
    EXPECT_GE(lines(), enough);
    return code;
}

TEST_F(Calibration, GivesGovernorAndFrequencyBackWhateverEndsItAndGoesOnLater) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}, {2667000, 300, 1.25, 0.02}};
    FakeNode node(shape);
    inside(node, [&] {
        ASSERT_EQ(run_easctl({"node", "frequency", "--governor", "ondemand"}).code, 0);
        ASSERT_EQ(run_easctl({"node", "frequency", "--set", "1600000", "--cpu", "1"}).code, 0);
        node.state().freq_log.clear();
        const std::string own = "ondemand\nuserspace\n1600000\n";
        for (const auto& [signal_number, code] :
             {std::pair(SIGINT, 130), std::pair(SIGTERM, 130), std::pair(SIGKILL, 137)}) {
            SCOPED_TRACE(signal_number);
            EXPECT_EQ(interrupted_by(signal_number, path("m.csv")), code);
            // Who was killed cannot do it himself: his watcher takes a moment.
            for (int i = 0; i < 1000 && settings() != own; ++i)
                ::usleep(10000);
            EXPECT_EQ(settings(), own);
        }
        std::ofstream(path("m.csv"), std::ios::app) << "stream,26670";  // a line cut short
        const auto last =
            run_easctl({"model", "calibrate", "--seconds", "0.1", "--out", path("m.csv"),
                        "--frequencies", "1600000,2400000,2667000,2667000"});
        EXPECT_EQ(last.code, 0) << last.err;
        EXPECT_EQ(settings(), own);
        for (const fake::FreqWrite& write : node.state().freq_log)
            EXPECT_THAT(write.file.data(), ::testing::AnyOf(::testing::StrEq("scaling_governor"),
                                                            ::testing::StrEq("scaling_setspeed")));
    });
    std::istringstream file(read_file(path("m.csv")));
    std::set<std::string> combinations;
    for (std::string line; std::getline(file, line);)
        EXPECT_TRUE(combinations.insert(line.substr(0, line.find(',', line.find(',') + 1))).second)
            << line;
    EXPECT_EQ(combinations.size(), 1 + 7 * 3);  // and the header
}

TEST_F(Calibration, RefusesAnotherNodesOrAnotherKindOfFileAndADriverThatDoesNotFollow) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    std::ofstream(path("notes.txt")) << "buy milk";
    std::ofstream(path("other.csv"))
        << "kernel,frequency_khz,elapsed_s,power_w,cycles,instructions,memory_bytes,nominal_khz,"
           "cpus,host\nstream,1600000,1,1,1,1,1,2400000,0-1,somewhere else\n";
    FakeNode node(shape);
    inside(node, [&] {
        expect_all({{{"model", "calibrate", "--out", path("notes.txt")}, 3, "notes.txt"},
                    {{"model", "calibrate", "--out", "/dev/full"}, 3, "no plain file"},
                    {{"model", "calibrate", "--out", path("other.csv")},
                     3,
                     "other.csv:2: measured on host somewhere else"}});
        EXPECT_EQ(read_file(path("notes.txt")), "buy milk");
    });
    shape.driver = fake::FreqDriver::deaf;
    FakeNode deaf(shape);
    inside(deaf, [&] {
        expect_all({{{"model", "calibrate", "--out", path("m.csv"), "--seconds", "0.05",
                      "--frequencies", "1600000"},
                     6,
                     "intel_cpufreq takes the request and does not follow it"}});
        EXPECT_EQ(cpufreq(0, "scaling_governor"), "performance\n");
    });
}

using NodeCommands = Calibration;

TEST_F(NodeCommands, ShowAndSteerANode) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&] {
        expect_all({
            {{"node", "info"}, 0, "family 6, model 44"},
            {{"node", "sensors"}, 0, "55  degrees C"},
            {{"node", "frequency", "--set", "1600000", "--cpu", "1"}, 0, "1600000  userspace"},
            {{"node", "frequency", "--cpu", "0"}, 0, "2667000  performance"},
            {{"node", "frequency", "--set", "2000000"}, 6, "not one of the driver's steps"},
            {{"node", "frequency", "--governor", "user"}, 6, "\"user\" was refused"},
            {{"node", "frequency", "--cpu", "1-7"}, 2, "cpu2: this node has no such processor"},
            {{"node", "sample", "--", "sh", "-c", "exit 3"}, 3, "cycles/instr"},
            {{"node", "sample", "--", "/no/such"}, 127, "/no/such: No such file"},
        });
        // A change that fails leaves nothing behind, on no CPU.
        EXPECT_EQ(settings(), "performance\nuserspace\n1600000\n");
        write_file("/sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq", "2400000");
        expect_all({{{"node", "frequency", "--set", "2667000", "--cpu", "0"},
                     6,
                     "scaling_max_freq 2400000"}});
        const auto run = run_easctl({"node", "sample", "--interval", "0.1", "--json", "--", "sh",
                                     "-c", "echo mixed in; sleep 1"});
        const auto json = nlohmann::json::parse(run.out);
        EXPECT_GE(json.at("samples").size(), 3U);
        EXPECT_NEAR(json.at("whole_run").at("power_w").get<double>(), 150, 15);
        EXPECT_THAT(run.err, HasSubstr("mixed in"));
        const Hidden registers("/dev/cpu");
        const Hidden meter("/sys/devices/platform");
        expect_all({{{"node", "info"}, 6, "modprobe msr"},
                    {{"node", "sample", "--", "true"}, 6, "the command was not run"}});
        const auto sensors = document_of({"node", "sensors"}, 6);
        for (const auto& reading : sensors.at("sensors"))
            EXPECT_TRUE(reading.at("value").is_null()) << reading;
    });
}

/// Name of each link that easctl doctor finds broken, its status, and what to do about it.
std::vector<std::string> broken_links() {
    const auto run = run_easctl({"doctor", "--node-only", "--json"});
    std::vector<std::string> broken;
    const auto links = nlohmann::json::parse(run.out).at("links");
    for (const auto& link : links)
        if (link.at("status") != "ok")
            broken.push_back(link.at("name").get<std::string>() + " " +
                             link.at("status").get<std::string>() + ": " +
                             link.at("remedy").get<std::string>());
    EXPECT_EQ(run.code, broken.empty() ? 0 : 1);
    return broken;
}

TEST_F(NodeCommands, NameTheBrokenLinkAndItsRemedy) {
    FakeNode node(small_node());
    inside(node, [&] {
        EXPECT_THAT(broken_links(), IsEmpty());
        node.state().counter_fails_at = 1;
        EXPECT_THAT(broken_links(),
                    ElementsAre("core counters (perf) missing: this (virtual) machine shows no "
                                "counters"));
        node.state().counter_fails_at = -1;
        // A meter that fails otherwise than by not being there.
        const fs::path meter = "/sys/devices/platform/qpx.1/energy1_input";
        const std::string reading = read_file(meter);
        fs::remove(meter);
        fs::create_directory(meter);
        EXPECT_THAT(broken_links(), ElementsAre("energy meter wrong: the meter is there and does "
                                                "not answer: see dmesg"));
        fs::remove(meter);
        write_file(meter, reading);
        // Root without the right to read what it may not read, as the tool is for others.
        let_file_modes_bind();
        const Hidden registers("/dev/cpu");
        write_file("/dev/cpu/0/msr", "");
        fs::permissions("/dev/cpu/0/msr", fs::perms::none);
        fs::permissions("/sys/devices/platform/qpx.1/energy1_input", fs::perms::none);
        EXPECT_THAT(broken_links(),
                    ElementsAre(HasSubstr("/dev/cpu/0/msr denied: run as root"),
                                HasSubstr("memory counters denied: run as root"),
                                "energy meter denied: run as root, or chmod a+r the sensor files"));
    });
    NodeShape shape = small_node();
    shape.driver = fake::FreqDriver::no_userspace;
    FakeNode fixed(shape);
    inside(fixed, [&] {
        EXPECT_THAT(broken_links(),
                    ElementsAre(HasSubstr("intel_pstate=passive"),
                                "cpufreq governor missing: modprobe cpufreq_userspace",
                                "frequencies missing: see the cpufreq driver"));
        expect_all({{{"node", "frequency", "--set", "1600000"}, 6, "driver intel_pstate"},
                    {{"model", "calibrate", "--out", path("m.csv")}, 6, "intel_pstate=passive"},
                    {{"node", "info"}, 6, "missing (the driver has no list)"}});
        EXPECT_FALSE(fs::exists(path("m.csv")));
    });
}

TEST_F(NodeCommands, DoNotTakeEveryKnownProcessorForASupportedOne) {
    FakeNode node(small_node());
    inside(node, [] {
        NodeShape older = small_node(), low_power = older;
        older.model = 23;
        low_power.model = 28;
        for (const std::string& cpuinfo : {fake::cpuinfo_text(older), fake::cpuinfo_text(low_power),
                                           std::string("processor\t: 0\nBogoMIPS\t: 50.00\n\n")}) {
            write_file("/proc/cpuinfo", cpuinfo);
            EXPECT_THAT(broken_links(), ElementsAre(HasSubstr("processor missing: "),
                                                    HasSubstr("memory counters missing: ")))
                << cpuinfo;
        }
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
                                  MemoryCase{46, "", "the library knows none of model 46"}}) {
        SCOPED_TRACE(std::to_string(one.model) + one.hidden);
        FakeNode node(of_model(one.model));
        inside(node, [&] {
            ASSERT_TRUE(*one.hidden == '\0' || ::unlink(one.hidden) == 0) << std::strerror(errno);
            const bool counted = *one.shown == '\0';
            const auto run = run_easctl({"node", "sample", "--json", "--", "sleep", "0.2"});
            EXPECT_EQ(run.code, 0) << run.err;
            EXPECT_THAT(run.err, HasSubstr(one.shown));
            const auto whole = nlohmann::json::parse(run.out).at("whole_run");
            EXPECT_EQ(whole.at("memory_gb_per_second").is_number(), counted) << whole;
            EXPECT_TRUE(whole.at("giga_cycles_per_second").is_number()) << whole;
            EXPECT_EQ(run_easctl({"node", "info"}).code, counted ? 0 : 6);
            if (!counted) {
                expect_all({{{"model", "calibrate", "--out", path("m.csv")}, 6, one.shown},
                            {{"node", "sample", "--", "true"}, 0, "missing"}});
                EXPECT_FALSE(fs::exists(path("m.csv")));
            }
        });
    }
}

}  // namespace
}  // namespace eas::test
