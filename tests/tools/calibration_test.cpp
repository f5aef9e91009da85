// easctl model calibrate and easctl node inside fake nodes: known coefficients come back through
// the simulated hardware, an interrupted calibration leaves the node as it was and goes on later.
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "common/CoEffsFromFile.h"
#include "tests/node/NodeTest.h"
#include "tests/support/ScratchFolder.h"
#include "tests/tools/Measurements.h"
#include "tests/tools/RunTool.h"

namespace eas::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class Calibration : public NodeTest {
  protected:
    [[nodiscard]] std::string path(const char* name) const { return folder_.path(name); }
    [[nodiscard]] std::vector<std::string> lines(const char* name) const {
        std::ifstream in(path(name));
        std::vector<std::string> all;
        for (std::string line; std::getline(in, line);)
            all.push_back(line);
        return all;
    }

    /// One core per CPU, so that every thread of a kernel is counted.
    static NodeShape small_node() {
        NodeShape shape = of_model(44);
        shape.sockets = 1;
        shape.cores = 2;
        shape.threads = 1;
        shape.frequencies = {2667000, 2400000, 1600000};
        shape.nonturbo_ratio = 18;  // 2400000
        return shape;
    }

    ScratchFolder folder_;
};

// The simulated work depends on the frequency only: one node for each kernel, all into one file.
TEST_F(Calibration, FindsTheCoefficientsOfASimulatedNode) {
    for (const KnownKernel& kernel : kernels) {
        NodeShape shape = small_node();
        for (const KnownRow& row : coefficients)
            shape.workload.push_back({row.khz, row.watts(kernel), row.pace(kernel), kernel.lines});
        FakeNode node(shape);
        inside(node, [&] {
            const auto run = run_easctl({"model", "calibrate", "--out", path("m.csv"), "--seconds",
                                         "0.4", "--kernels", kernel.name, "--json"});
            EXPECT_EQ(run.code, 0) << run.err;
            const auto json = nlohmann::json::parse(run.out);
            EXPECT_EQ(json.at("measured").size(), std::size(coefficients));
        });
    }
    // Short runs on a busy machine: counters that are read one after the other do not quite agree.
    const auto fit =
        run_easctl({"model", "fit", path("m.csv"), "-o", path("c.txt"), "--max-error", "20"});
    EXPECT_EQ(fit.code, 0) << fit.err;
    EXPECT_THAT(fit.out, HasSubstr("2400000 kHz, the node's nominal one"));
    CoEffsFromFile file;
    ASSERT_EQ(file.ReadCoefficientsFromFile(path("c.txt").c_str()), 0);
    ASSERT_EQ(file.getFrequencies().size(), std::size(coefficients));
    for (std::size_t i = 0; i < std::size(coefficients); ++i) {
        const KnownRow& row = coefficients[i];
        if (row.khz == 2400000)
            continue;
        SCOPED_TRACE(row.khz);
        const double found[] = {file.getFactorA()[i], file.getFactorB()[i], file.getFactorC()[i],
                                file.getFactorD()[i], file.getFactorE()[i], file.getFactorF()[i]};
        EXPECT_NEAR(found[0], row.factors[0], 0.1);
        EXPECT_NEAR(found[3], row.factors[3], 0.1);
        for (const KnownKernel& kernel : kernels) {
            EXPECT_NEAR(found[0] * kernel.watts + found[1] * kernel.lines + found[2],
                        row.watts(kernel), 0.02 * row.watts(kernel));
            EXPECT_NEAR(
                found[3] * kernel.cycles_per_instruction + found[4] * kernel.lines + found[5],
                row.pace(kernel), 0.05 * row.pace(kernel) + 0.04);
        }
    }
}

std::string cpufreq(int cpu, const char* file) {
    return read_file("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/" + file);
}

/// Starts a calibration, ends it by a signal once it added two runs; its exit code, as a shell
/// has it.
int interrupted_by(int signal_number, const std::string& file, std::size_t runs_before) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);
        ::execl(EAS_EASCTL, "easctl", "model", "calibrate", "--quiet", "--seconds", "0.1", "--out",
                file.c_str(), nullptr);
        ::_exit(127);
    }
    const auto count = [&] {
        std::ifstream in(file);
        std::stringstream text;
        text << in.rdbuf();
        const std::string all = text.str();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), '\n'));
    };
    const timespec pause{0, 10000000};
    while (count() < 1 + runs_before + 2 && ::waitpid(child, nullptr, WNOHANG) == 0)
        ::nanosleep(&pause, nullptr);
    EXPECT_EQ(cpufreq(0, "scaling_governor"), "userspace\n");
    ::kill(child, signal_number);
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(Calibration, GivesGovernorAndFrequencyBackWhateverEndsItAndGoesOnLater) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}, {2667000, 300, 1.25, 0.02}};
    FakeNode node(shape);
    inside(node, [&] {
        ASSERT_EQ(run_easctl({"node", "frequency", "--governor", "ondemand"}).code, 0);
        ASSERT_EQ(run_easctl({"node", "frequency", "--set", "1600000", "--cpu", "1"}).code, 0);
        node.state().freq_log.clear();
        const auto given_back = [] {
            // Who was killed cannot do it himself: his watcher takes a moment.
            const timespec pause{0, 10000000};
            for (int i = 0; i < 200 && cpufreq(0, "scaling_governor") != "ondemand\n"; ++i)
                ::nanosleep(&pause, nullptr);
            EXPECT_EQ(cpufreq(0, "scaling_governor"), "ondemand\n");
            for (int i = 0; i < 200 && cpufreq(1, "scaling_cur_freq") != "1600000\n"; ++i)
                ::nanosleep(&pause, nullptr);
            EXPECT_EQ(cpufreq(1, "scaling_governor"), "userspace\n");
            EXPECT_EQ(cpufreq(1, "scaling_cur_freq"), "1600000\n");
        };
        std::size_t runs = 0;
        for (const auto& [signal_number, code] :
             {std::pair(SIGINT, 130), std::pair(SIGTERM, 130), std::pair(SIGKILL, 137)}) {
            SCOPED_TRACE(signal_number);
            EXPECT_EQ(interrupted_by(signal_number, path("m.csv"), runs), code);
            given_back();
            EXPECT_GE(lines("m.csv").size(), 1 + runs + 2);
            runs = lines("m.csv").size() - 1;
        }
        std::ofstream(path("m.csv"), std::ios::app) << "stream,26670";  // a line cut short
        const auto last =
            run_easctl({"model", "calibrate", "--seconds", "0.1", "--out", path("m.csv")});
        EXPECT_EQ(last.code, 0) << last.err;
        given_back();
        for (const fake::FreqWrite& write : node.state().freq_log)
            EXPECT_THAT(write.file.data(), ::testing::AnyOf(::testing::StrEq("scaling_governor"),
                                                            ::testing::StrEq("scaling_setspeed")));
    });
    std::set<std::string> combinations;
    for (const std::string& line : lines("m.csv"))
        combinations.insert(line.substr(0, line.find(',', line.find(',') + 1)));
    EXPECT_EQ(combinations.size(), 1 + 7 * 3);  // and the header
    EXPECT_EQ(lines("m.csv").size(), combinations.size());
}

TEST_F(Calibration, RefusesAnotherNodesOrAnotherKindOfFileAndADriverThatDoesNotFollow) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    std::ofstream(path("notes.txt")) << "buy milk";
    std::ofstream(path("other.csv"))
        << "kernel,frequency_khz,elapsed_s,power_w,cycles,instructions,memory_bytes,nominal_khz,"
           "cpus,host\nstream,1600000,1,1,1,1,1,2400000,0-1,somewhere else\n";
    const auto calibrate = [&](const char* file) {
        return run_easctl({"model", "calibrate", "--seconds", "0.05", "--out", path(file)});
    };
    FakeNode node(shape);
    inside(node, [&] {
        const auto notes = calibrate("notes.txt");
        EXPECT_EQ(notes.code, 3);
        EXPECT_EQ(read_file(path("notes.txt")), "buy milk");
        const auto other = calibrate("other.csv");
        EXPECT_EQ(other.code, 3);
        EXPECT_THAT(other.err, HasSubstr("other.csv:2: measured on host somewhere else"));
    });
    shape.driver = fake::FreqDriver::kDeaf;
    FakeNode deaf(shape);
    inside(deaf, [&] {
        const auto run = run_easctl({"model", "calibrate", "--out", path("m.csv"), "--seconds",
                                     "0.05", "--frequencies", "1600000"});
        EXPECT_EQ(run.code, 6);
        EXPECT_THAT(run.err, HasSubstr("intel_cpufreq takes the request and does not follow it"));
        EXPECT_EQ(cpufreq(0, "scaling_governor"), "performance\n");
    });
}

struct Expectation {
    std::vector<std::string> arguments;
    int code;
    const char* shown;  // on standard output or error
};

void expect_all(const std::vector<Expectation>& rows) {
    for (const Expectation& row : rows) {
        std::string name;
        for (const std::string& word : row.arguments)
            name += word + ' ';
        SCOPED_TRACE(name);
        const auto run = run_easctl(row.arguments);
        EXPECT_EQ(run.code, row.code);
        EXPECT_THAT(run.out + run.err, HasSubstr(row.shown));
    }
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
        for (const int cpu : {0, 1})
            EXPECT_EQ(cpufreq(cpu, "scaling_governor"), cpu == 0 ? "performance\n" : "userspace\n");
        EXPECT_EQ(cpufreq(1, "scaling_cur_freq"), "1600000\n");
        write_file("/sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq", "2400000");
        expect_all({{{"node", "frequency", "--set", "2667000", "--cpu", "0"},
                     6,
                     "scaling_max_freq 2400000"}});
        const auto run = run_easctl({"node", "sample", "--interval", "0.1", "--json", "--", "sh",
                                     "-c", "echo mixed in; sleep 0.25"});
        const auto json = nlohmann::json::parse(run.out);
        EXPECT_GE(json.at("samples").size(), 3U);
        EXPECT_NEAR(json.at("whole_run").at("power_w").get<double>(), 150, 15);
        EXPECT_THAT(run.err, HasSubstr("mixed in"));
        const Hidden registers("/dev/cpu");
        const Hidden meter("/sys/devices/platform");
        expect_all({{{"node", "info"}, 6, "modprobe msr"},
                    {{"node", "sample", "--", "true"}, 6, "the command was not run"}});
    });
    shape.driver = fake::FreqDriver::kNoUserspace;
    FakeNode fixed(shape);
    inside(fixed, [&] {
        expect_all({{{"node", "frequency", "--set", "1600000"}, 6, "driver intel_pstate"},
                    {{"model", "calibrate", "--out", path("m.csv")}, 6, "intel_pstate=passive"},
                    {{"node", "info"}, 6, "missing (the driver has no list)"}});
        EXPECT_FALSE(fs::exists(path("m.csv")));
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
        // Root without the right to read what it may not read, as the tool is for others.
        for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH})
            ASSERT_EQ(0, ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0));
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
    shape.driver = fake::FreqDriver::kNoUserspace;
    FakeNode fixed(shape);
    inside(fixed, [] {
        EXPECT_THAT(broken_links(),
                    ElementsAre(HasSubstr("intel_pstate=passive"),
                                "cpufreq governor missing: modprobe cpufreq_userspace",
                                "frequencies missing: see the cpufreq driver"));
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

// On whatever machine this is: nothing that cannot be read is shown as a number.
TEST(NodeCommandsAnywhere, ShowNoReadingWhereThereIsNone) {
    for (const auto& reading : nlohmann::json::parse(run_easctl({"node", "sensors", "--json"}).out))
        EXPECT_EQ(reading.at("state") == "ok", reading.at("value").is_number()) << reading;
    const auto info = run_easctl({"node", "info", "--json"});
    bool all_well = true;
    const auto links = nlohmann::json::parse(info.out).at("links");
    for (const auto& link : links) {
        all_well &= link.at("status") == "ok";
        EXPECT_NE(link.at("status") == "ok", link.contains("remedy")) << link;
    }
    EXPECT_EQ(info.code, all_well ? 0 : 6);
}

}  // namespace eas::test
