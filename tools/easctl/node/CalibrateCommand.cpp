// easctl model calibrate: runs the seven kernels at every frequency of this node and writes down
// what they cost.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

#include "common/node/EnergyUtil.h"
#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/node/CalibrationFile.h"
#include "tools/easctl/node/CpuList.h"
#include "tools/easctl/node/FrequencyControl.h"
#include "tools/easctl/node/KernelThreads.h"
#include "tools/easctl/node/NodeLinks.h"
#include "tools/easctl/node/NodeSampler.h"

namespace easctl {
namespace {

constexpr double longest_warm_up_seconds = 1;
constexpr double redraw_seconds = 0.1;

struct CalibrateOptions {
    std::string output = "measurements.csv";
    double seconds = 10;
    std::string cpu_list = "all";
    std::vector<int> frequencies;
    std::vector<std::string> kernels;
};

struct PlannedRun {
    int khz;
    const Kernel* kernel;
};

/// Throws Failure that names everything that is missing, at once.
void require_node() {
    std::string missing;
    for (const Link& link : examine_node(node_links)) {
        // A list of frequencies can be given, too.
        if (is_broken(link) && link.id != LinkId::frequencies)
            missing += '\n' + trouble_of(link);
    }
    if (!missing.empty())
        throw Failure(ExitCode::node, "this node cannot be calibrated:" + missing);
}

std::vector<int> frequencies_of_node() {
    std::vector<int> table;
    if (EnergyUtil::get_available_freqs(table, 0) != 1)
        throw Failure(
            ExitCode::node,
            "the driver " + frequency_driver(0) + " has no file scaling_available_frequencies",
            "name the frequencies with --frequencies");
    return table;
}

std::string host_name() {
    std::array<char, 256> name{};
    ::gethostname(name.data(), name.size() - 1);
    return name.data();
}

int nominal_khz() {
    const int khz = EnergyUtil::get_nominal_freq(0);
    if (khz < 1)
        throw Failure(ExitCode::node, "the nominal frequency cannot be read from /dev/cpu/0/msr",
                      "modprobe msr");
    return khz;
}

class Calibration {
  public:
    Calibration(const CalibrateOptions& options, Globals& globals)
        : options_(options),
          globals_(globals),
          cpus_(parse_cpus(options.cpu_list)),
          file_(options.output, {nominal_khz(), cpu_text(cpus_), host_name()}) {
        plan();
    }

    void run() {
        announce();
        if (plan_.empty())
            return;
        const HeldSignals signals;
        const std::vector<int> everything = all_cpus();
        try {
            const FrequencyGuard guard(everything);
            const NodeSampler sampler(::getpid());
            require_counters(sampler);
            Progress progress("calibrating", plan_.size() * slices_per_run, globals_.quiet);
            for (const PlannedRun& run : plan_) {
                if (khz_set_ != run.khz)
                    set_frequency(everything, run.khz);
                khz_set_ = run.khz;
                measure(run, sampler, signals, progress);
                ++done_;
            }
        } catch (Failure& failure) {
            if (failure.code == ExitCode::interrupted)
                failure.hint =
                    "governor and frequency are given back; the same command goes on "
                    "from here; runs left: " +
                    std::to_string(plan_.size() - done_);
            throw;
        }
    }

    [[nodiscard]] Json json() const {
        return {{"output", options_.output}, {"measured", rows_}, {"measured_before", before_}};
    }

  private:
    static constexpr std::uint64_t slices_per_run = 1000;

    void plan() {
        std::vector<int> frequencies = options_.frequencies;
        if (frequencies.empty())
            frequencies = frequencies_of_node();
        for (const int khz : each_once(frequencies)) {
            for (const Kernel& kernel : kernels()) {
                const auto& wanted = options_.kernels;
                if (!wanted.empty() &&
                    std::find(wanted.begin(), wanted.end(), kernel.name) == wanted.end())
                    continue;
                if (file_.has(kernel.name, khz))
                    ++before_;
                else
                    plan_.push_back({khz, &kernel});
            }
        }
    }

    [[nodiscard]] double warm_up_seconds() const {
        return std::min(longest_warm_up_seconds, options_.seconds * 0.2);
    }

    void announce() const {
        if (before_ > 0)
            remark(globals_,
                   options_.output + " holds " + std::to_string(before_) + " of the runs already");
        const double seconds =
            (options_.seconds + warm_up_seconds()) * static_cast<double>(plan_.size());
        remark(globals_, "runs to do: " + std::to_string(plan_.size()) + " on CPUs " +
                             cpu_text(cpus_) + ", about " + duration(seconds) +
                             "; nothing else should run on this node");
    }

    static void require_counters(const NodeSampler& sampler) {
        if (!sampler.has_counters())
            throw Failure(ExitCode::node, "the hardware counters cannot be programmed",
                          "easctl node info shows what is missing");
    }

    /// Sleeps that long, drawing how far this run is.
    void wait(double seconds, double from, double to, const PlannedRun& run,
              const HeldSignals& signals, Progress& progress) const {
        const double start = monotonic_seconds();
        while (true) {
            const double passed = monotonic_seconds() - start;
            if (passed >= seconds)
                return;
            const double part = from + (to - from) * passed / seconds;
            progress.update(
                done_ * slices_per_run + static_cast<std::uint64_t>(part * slices_per_run),
                std::to_string(run.khz) + " kHz, " + run.kernel->name);
            signals.sleep_or_throw(std::min(redraw_seconds, seconds - passed));
        }
    }

    void measure(const PlannedRun& run, const NodeSampler& sampler, const HeldSignals& signals,
                 Progress& progress) {
        const KernelThreads threads(*run.kernel, cpus_, signals);
        const double warm_up = warm_up_seconds();
        const double warm_part = warm_up / (warm_up + options_.seconds);
        wait(warm_up, 0, warm_part, run, signals, progress);
        const NodeSample first = sampler.take_at_update(signals);
        wait(options_.seconds, warm_part, 1, run, signals, progress);
        const NodeSample last = sampler.take_at_update(signals);
        check_frequency(cpus_, run.khz, 0.1);  // under load: heat or a power limit may hold it
        const KernelRun result = difference(first, last, run);
        file_.add(run.kernel->name, run.khz, result);
        progress.hide();
        show(run, result);
    }

    static KernelRun difference(const NodeSample& first, const NodeSample& last,
                                const PlannedRun& run) {
        const auto counted = [&](std::uint64_t hwrusage::*field, const char* what) {
            if (first.hardware.tstamp == 0 || last.hardware.*field <= first.hardware.*field)
                throw Failure(ExitCode::node,
                              std::string("kernel ") + run.kernel->name + ": the " + what +
                                  " counters stand still",
                              "easctl node info shows what is missing");
            return static_cast<double>(last.hardware.*field - first.hardware.*field);
        };
        if (first.microjoules == 0 || last.microjoules <= first.microjoules)
            throw Failure(ExitCode::node, "the energy meter stands still, or was started anew",
                          "start the same command again");
        KernelRun result;
        result.runs = 1;
        result.elapsed_s = last.seconds - first.seconds;
        result.power_w =
            static_cast<double>(last.microjoules - first.microjoules) / 1e6 / result.elapsed_s;
        result.cycles = counted(&hwrusage::cycles, "cycle");
        result.instructions = counted(&hwrusage::instructions, "instruction");
        result.memory_bytes = counted(&hwrusage::membytes_xferred, "memory");
        return result;
    }

    void show(const PlannedRun& run, const KernelRun& result) {
        rows_.push_back({{"frequency_khz", run.khz},
                         {"kernel", run.kernel->name},
                         {"power_w", result.power_w},
                         {"cycles_per_instruction", result.cycles_per_instruction()},
                         {"lines_per_instruction", result.lines_per_instruction()}});
        if (globals_.json || globals_.quiet)
            return;
        const std::string name = run.kernel->name;
        print(std::to_string(run.khz) + " kHz  " + name + std::string(10 - name.size(), ' ') +
              number(result.power_w, 1) + " W  " + number(result.cycles_per_instruction(), 3) +
              " cycles/instruction  " + number(result.lines_per_instruction(), 5) +
              " lines/instruction\n");
        flush_output();
    }

    const CalibrateOptions& options_;
    Globals& globals_;
    std::vector<int> cpus_;
    CalibrationFile file_;
    std::vector<PlannedRun> plan_;
    int khz_set_ = 0;
    std::size_t before_ = 0;  // runs that the file held
    std::uint64_t done_ = 0;
    Json rows_ = Json::array();
};

void run_calibrate(const CalibrateOptions& options, Globals& globals) {
    require_node();
    Calibration calibration(options, globals);
    calibration.run();
    if (globals.json)
        print_json(calibration.json());
    remark(globals, "done; next: easctl model fit " + options.output + " -o coefficients.txt");
}

std::vector<std::string> kernel_names() {
    std::vector<std::string> names;
    for (const Kernel& kernel : kernels())
        names.emplace_back(kernel.name);
    return names;
}

/// What each stands for.
std::string kernel_text() {
    std::string text = "only some, separated by commas:";
    for (const Kernel& kernel : kernels())
        text += std::string(&kernel == kernels().data() ? "" : ",") + '\n' + kernel.name + " (" +
                kernel.character + ")";
    return text;
}

}  // namespace

void add_calibrate_command(CLI::App& model, Globals& globals) {
    CLI::App& command =
        add_command(model, "calibrate", "measures this node for \"model fit\"",
                    "easctl model calibrate --out measurements.csv\n"
                    "easctl model calibrate --seconds 30 --frequencies 2300000,1800000,1200000");
    const auto options = std::make_shared<CalibrateOptions>();
    add_option(command, "--out", options->output,
               "where each run is added; what it holds already is not measured again")
        .show_default()
        .type_name("FILE");
    add_option(command, "--seconds", options->seconds, "length of each run")
        .check(number_from(0.05, 3600.0))
        .show_default()
        .type_name("S");
    add_option(command, "--cpu-list", options->cpu_list,
               "where the kernels run, as 0-7,16-23; the frequency is set on all CPUs")
        .show_default()
        .type_name("CPUS");
    add_option(command, "--frequencies", options->frequencies,
               "kHz, separated by commas; by default all that the driver offers")
        .delimiter(',')
        .check(whole_number_from(1, 999999999))
        .type_name("KHZ");
    add_option(command, "--kernels", options->kernels, kernel_text())
        .delimiter(',')
        .check(one_of(kernel_names()))
        .type_name("NAME");
    set_action(command, [options, &globals] { run_calibrate(*options, globals); });
}

}  // namespace easctl
