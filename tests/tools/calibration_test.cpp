// easctl model calibrate and easctl node inside fake nodes: known coefficients come back through
// the simulated hardware, an interrupted calibration leaves the node as it was and goes on later.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <vector>

#include "tests/node/NodeTest.h"
#include "tests/support/ChildProcess.h"
#include "tests/tools/Measurements.h"
#include "tests/tools/RunTool.h"
#include "tests/tools/SmallNode.h"

namespace eas::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

using Calibration = SmallNodeTest;

/// A node that can be calibrated, and what becomes of the known coefficients on it.
struct CalibratedShape {
    const char* name;      // empty: small_node
    std::vector<int> khz;  // like the rows of `coefficients`, all or the first two
    double share;          // of the watts that its meter sees
    const char* meter;
};
const CalibratedShape calibrated_shapes[] = {
    {"", {1600000, 2400000, 2667000}, 1, "qpx/node registers/node"},
    {"hybrid", {1000000, 1800000, 1400000}, 0.8, "rapl/packages imc/node"},
    {"xeon2023", {1000000, 2000000}, 1, "rapl/packages-and-memory imc/node"},
    {"epyc2023", {1500000, 2750000}, 1, "rapl/packages umc/node"},
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
                "--json", "model",     "calibrate", "--out",         path("m.csv"), "--seconds",
                "0.4",    "--kernels", "stream",    "--frequencies", frequencies};
        };
        node.state().cap_khz = 1600000;
        expect_all(
            {{at("2667000"), 6, "did not run at any of the frequencies: the driver acpi-cpufreq "},
             {at("2667000,1600000"), 1,
              "[\n    \"2667000 kHz, stream: left out, the CPUs ran at 1"},
             {at("2667000,1600000"), 1, "1 of 1 runs were left out, since the CPUs ran at other"}});
        EXPECT_THAT(read_file(path("m.csv")), HasSubstr("stream,1600000"));
        EXPECT_THAT(read_file(path("m.csv")), ::testing::Not(HasSubstr("stream,2667000")));
    });
}

}  // namespace
}  // namespace eas::test
