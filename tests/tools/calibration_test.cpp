// easctl model calibrate and easctl node inside fake nodes: known coefficients come back through
// the simulated hardware, an interrupted calibration leaves the node as it was and goes on later.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
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

/// A node that can be calibrated, and what becomes of the known coefficients on it.
struct CalibratedShape {
    const char* name;  // empty: small_node
    std::array<int, std::size(coefficients)> khz;
    double share;  // of the watts that its meter sees
    const char* meter;
};
const CalibratedShape calibrated_shapes[] = {
    {"", {1600000, 2400000, 2667000}, 1, "qpx/node registers/node"},
    {"hybrid", {1000000, 1800000, 1400000}, 0.8, "rapl/packages imc/node"},
    {"xeon2023", {1000000, 2000000, 1500000}, 1, "rapl/packages-and-memory imc/node"},
    {"epyc2023", {1500000, 2750000, 2000000}, 1, "rapl/packages umc/node"},
};

/// Measures each kernel on a node of its own, since the simulated work depends on the frequency
/// only; all into one file.
void measure_into(const std::string& file, const CalibratedShape& one, NodeShape shape) {
    std::string frequencies;
    for (const int khz : one.khz)
        frequencies += (frequencies.empty() ? "" : ",") + std::to_string(khz);
    for (const KnownKernel& kernel : kernels) {
        std::map<int, fake::WorkloadRow> rows;
        for (std::size_t i = 0; i < one.khz.size(); ++i) {
            const KnownRow& row = coefficients[i];
            rows[one.khz[i]] = {one.khz[i], row.watts(kernel), row.pace(kernel), kernel.lines};
        }
        shape.workload.clear();
        for (const auto& [khz, row] : rows)
            shape.workload.push_back(row);
        FakeNode node(shape);
        inside(node, [&] {
            // On a busy machine a run may look as if it were off its frequency: it is repeated.
            const std::vector<std::string> words = {
                "--json",    "model",      "calibrate", "--out",     file,
                "--seconds", "0.4",        "--kernels", kernel.name, "--frequencies",
                frequencies, "--cpu-list", "0-1"};
            std::size_t measured = 0;
            for (int i = 0; i < 5 && measured < one.khz.size(); ++i) {
                const auto run = nlohmann::json::parse(run_easctl(words).out);
                if (run.contains("error"))
                    continue;
                EXPECT_EQ(run.at("meter"), one.meter) << run;
                measured += run.at("measured").size();
            }
            EXPECT_EQ(measured, one.khz.size());
        });
    }
}

/// What of a fitted model is far from the one that was simulated.
std::string misses_of(const std::vector<KnownRow>& found, const CalibratedShape& one) {
    std::ostringstream misses;
    const auto is_near = [](double value, double known, double tolerance) {
        return std::abs(value - known) <= tolerance * known;
    };
    for (std::size_t i = 0; i < one.khz.size(); ++i) {
        const auto row = std::find_if(found.begin(), found.end(), [&](const KnownRow& candidate) {
            return candidate.khz == one.khz[i];
        });
        if (row == found.end())
            return "no row of " + std::to_string(one.khz[i]);
        for (KnownKernel kernel : kernels) {
            const double watts = coefficients[i].watts(kernel) * one.share;
            const double pace = coefficients[i].pace(kernel);
            kernel.watts *= one.share;
            if (coefficients[i].khz != 2400000 && (!is_near(row->watts(kernel), watts, 0.03) ||
                                                   !is_near(row->pace(kernel), pace, 0.03)))
                misses << row->khz << ' ' << kernel.name << ": " << row->watts(kernel) << " W for "
                       << watts << ", " << row->pace(kernel) << " for " << pace << "; ";
        }
    }
    return misses.str();
}

TEST_F(Calibration, FindsTheCoefficientsOfEverySimulatedNode) {
    for (const CalibratedShape& one : calibrated_shapes) {
        SCOPED_TRACE(one.name);
        fs::remove(path("m.csv"));
        fs::remove(path("c.txt"));
        measure_into(path("m.csv"), one,
                     *one.name == '\0' ? small_node() : fake::read_shape(one.name));
        const auto fit =
            run_easctl({"model", "fit", path("m.csv"), "-o", path("c.txt"), "--max-error", "20"});
        EXPECT_THAT(fit.out + fit.err,
                    HasSubstr(std::to_string(one.khz[1]) + " kHz, the node's nominal one"));
        EXPECT_EQ(misses_of(rows_of(path("c.txt")), one), "");
    }
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
            run_easctl({"model", "calibrate", "--force", "--seconds", "0.1", "--out", path("m.csv"),
                        "--frequencies", "1600000,2400000,2667000,2667000"});
        EXPECT_EQ(last.code, 0) << last.err;
        EXPECT_EQ(settings(), own);
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
           "cpus,host,meter\nstream,1600000,1,1,1,1,1,2400000,0-1,somewhere else,x\n";
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
                     "was set, but this stands there now"}});
        EXPECT_EQ(cpufreq(0, "scaling_governor"), "performance\n");
    });
}

// A power limit that holds the clock below what was asked for, and accepted.
TEST_F(Calibration, LeavesOutWhatDidNotRunAtItsFrequency) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&] {
        const auto at = [&](const std::string& frequencies) {
            return std::vector<std::string>{
                "model", "calibrate", "--out",  path("m.csv"),   "--seconds",
                "0.4",   "--kernels", "stream", "--frequencies", frequencies};
        };
        node.state().cap_khz = 1600000;
        expect_all(
            {{at("2667000"), 6, "did not run at any of the frequencies"},
             {at("2667000,1600000"), 1, "2667000 kHz, stream: left out, the CPUs ran at 1"}});
        EXPECT_THAT(read_file(path("m.csv")), HasSubstr("stream,1600000"));
        EXPECT_THAT(read_file(path("m.csv")), ::testing::Not(HasSubstr("stream,2667000")));
    });
}

using NodeCommands = Calibration;

TEST_F(NodeCommands, ShowAndSteerANode) {
    NodeShape shape = small_node();
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&] {
        node.state().set_msr(0, 0x19C, 0x80000000 | 100 << 16);  // 5 degrees above the limit
        write_file("/sys/devices/platform/qpx.1/temp1_input", "-3000\n");
        expect_all({
            {{"node", "info"}, 0, "family 6, model 44"},
            {{"node", "info"}, 0, "nominal      2400000 kHz, platform-information register"},
            {{"node", "sensors"}, 0, "-5  degrees C"},
            {{"node", "sensors"}, 0, "-3  degrees C"},
            {{"node", "frequency", "--set", "1600000", "--cpu", "1"}, 0, "1600000  userspace"},
            {{"node", "frequency", "--cpu", "0"}, 0, "2667000  performance"},
            {{"node", "frequency", "--set", "2000000"}, 6, "is not in the table"},
            {{"node", "frequency", "--governor", "user"}, 6, "\"user\" was refused"},
            {{"node", "frequency", "--cpu", "1-7"}, 2, "cpu2: this node has no such processor"},
            {{"node", "sample", "--", "sh", "-c", "exit 3"}, 3, "cycles/instr"},
            {{"node", "sample", "--", "/no/such"}, 127, "/no/such: No such file"},
        });
        // A change that fails leaves nothing behind, on no CPU.
        EXPECT_EQ(settings(), "performance\nuserspace\n1600000\n");
        const auto run = run_easctl({"node", "sample", "--interval", "0.1", "--json", "--", "sh",
                                     "-c", "echo mixed in; sleep 1"});
        const auto json = nlohmann::json::parse(run.out);
        EXPECT_GE(json.at("samples").size(), 3U);
        EXPECT_NEAR(json.at("whole_run").at("power_w").get<double>(), 150, 15);
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
        EXPECT_THAT(broken_links(),
                    ElementsAre(HasSubstr("core counters of gethwrusage missing: event ")));
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
        const auto whole = document_of({"node", "sample", "--", "sleep", "0.2"}).at("whole_run");
        EXPECT_NEAR(whole.at("giga_cycles_per_second").get<double>(), 600 * 3.8, 250) << whole;
        expect_all({{{"model", "calibrate", "--seconds", "0.2", "--kernels", "stream", "--cpu-list",
                      "1100-1101", "--frequencies", "2000000", "--out", path("m.csv")},
                     0,
                     "2000000 kHz  stream"}});
    });
}

// Drivers that are not among those that are calibrated above.
TEST_F(NodeCommands, NeedNeitherATableOfFrequenciesNorAGovernorUserspace) {
    for (const char* name : {"epyc2023-passive", "epyc2019"}) {
        SCOPED_TRACE(name);
        FakeNode node(fake::read_shape(name));
        inside(node, [&] {
            const auto info = document_of({"node", "info"});
            EXPECT_TRUE(info.at("ok")) << info;
            const int khz = info.at("steps").back().at("frequency_khz");
            expect_all(
                {{{"node", "frequency", "--set", std::to_string(khz), "--cpu", "0"},
                  0,
                  std::to_string(khz)},
                 {{"model", "calibrate", "--seconds", "0.2", "--kernels", "stream", "--cpu-list",
                   "0", "--frequencies", std::to_string(khz), "--out", path(name)},
                  0,
                  "lines/instruction"}});
        });
    }
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
        expect_all({{{"doctor", "--node-only"}, 1, "socket 1 is not where it is looked for"}});
    });
}

}  // namespace
}  // namespace eas::test
