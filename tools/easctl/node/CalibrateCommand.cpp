// easctl model calibrate: runs the seven kernels at every frequency of this node and writes down
// what they cost.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/node/CalibrationFile.h"
#include "tools/easctl/node/CpuList.h"
#include "tools/easctl/node/FrequencyControl.h"
#include "tools/easctl/node/KernelThreads.h"
#include "tools/easctl/node/NodeMeter.h"

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
    MeterOptions meter;
};

struct PlannedRun {
    int khz;
    const Kernel* kernel;
};

/// Throws Failure that names everything that is missing, at once.
void require_node(const easnode_frequency_info& info, const easnode_reading& reading) {
    std::string missing;
    const std::pair<const char*, const easnode_figure*> figures[] = {
        {"cycles", &reading.cycles},
        {"instructions", &reading.instructions},
        {"memory traffic", &reading.memory},
        {"energy", &reading.energy}};
    for (const auto& [name, figure] : figures) {
        if (!value_of(*figure))
            missing += std::string("\n") + name + ": " + figure->reason;
    }
    if (info.method == EASNODE_FREQUENCY_NONE)
        missing += "\nfrequency: no cpufreq driver";
    if (!missing.empty())
        throw Failure(ExitCode::node, "this node cannot be calibrated:" + missing,
                      "easctl doctor --node-only says what to do");
}

/// All that are offered but those of turbo, which a busy node does not hold.
std::vector<int> frequencies_of(const NodeFrequency& frequency) {
    std::vector<int> all;
    for (const easnode_step& step : frequency.steps()) {
        if (step.turbo == 0)
            all.push_back(step.khz);
    }
    if (all.empty())
        throw Failure(ExitCode::node, "the driver offers no frequency without turbo",
                      "name the frequencies with --frequencies");
    return all;
}

std::string host_name() {
    std::array<char, 256> name{};
    ::gethostname(name.data(), name.size() - 1);
    return name.data();
}

int nominal_khz(const NodeFrequency& frequency, const easnode_frequency_info& info) {
    const int khz = nominal_of(frequency, info).khz;
    if (khz < 1)
        throw Failure(ExitCode::node, "the nominal frequency of this node is unknown",
                      "easctl node info");
    return khz;
}

class Calibration {
  public:
    Calibration(const CalibrateOptions& options, Globals& globals)
        : options_(options),
          globals_(globals),
          cpus_(parse_cpus(options.cpu_list)),
          meter_(options.meter, ::getpid()),
          first_(meter_.read()) {
        const easnode_frequency_info info = everything_.info();
        require_node(info, first_);
        file_.emplace(options.output,
                      CalibrationNode{nominal_khz(everything_, info), cpu_text(cpus_), host_name(),
                                      meter_text(first_)});
        plan();
    }

    void run() {
        announce();
        if (plan_.empty())
            return;
        const HeldSignals signals;
        try {
            const FrequencyGuard guard(everything_);
            Progress progress("calibrating", plan_.size() * slices_per_run, globals_.quiet);
            for (const PlannedRun& run : plan_) {
                if (khz_set_ != run.khz)
                    everything_.set(run.khz);
                khz_set_ = run.khz;
                measure(run, signals, progress);
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
        judge();
    }

    [[nodiscard]] Json json() const {
        return {{"output", options_.output},
                {"meter", meter_text(first_)},
                {"measured", rows_},
                {"left_out", left_out_},
                {"measured_before", before_}};
    }

  private:
    static constexpr std::uint64_t slices_per_run = 1000;

    void plan() {
        std::vector<int> frequencies = options_.frequencies;
        if (frequencies.empty())
            frequencies = frequencies_of(everything_);
        for (const int khz : each_once(frequencies)) {
            for (const Kernel& kernel : kernels()) {
                const auto& wanted = options_.kernels;
                if (!wanted.empty() &&
                    std::find(wanted.begin(), wanted.end(), kernel.name) == wanted.end())
                    continue;
                if (file_->has(kernel.name, khz))
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
        remark(globals_, "energy: " + text_of(first_.energy));
        remark(globals_, "memory traffic: " + text_of(first_.memory));
        const double seconds =
            (options_.seconds + warm_up_seconds()) * static_cast<double>(plan_.size());
        remark(globals_, "runs to do: " + std::to_string(plan_.size()) + " on CPUs " +
                             cpu_text(cpus_) + ", about " + duration(seconds) +
                             "; nothing else should run on this node");
    }

    /// Sleeps that long, drawing how far this run is.
    void wait(double seconds, double from, double to, const PlannedRun& run,
              const HeldSignals& signals, Progress& progress) {
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
            meter_.keep_up();
        }
    }

    void measure(const PlannedRun& run, const HeldSignals& signals, Progress& progress) {
        const KernelThreads threads(*run.kernel, cpus_, signals);
        const double warm_up = warm_up_seconds();
        const double warm_part = warm_up / (warm_up + options_.seconds);
        wait(warm_up, 0, warm_part, run, signals, progress);
        ClockCheck check(busy_, run.khz);
        const easnode_reading first = read_at_update(signals);
        wait(options_.seconds, warm_part, 1, run, signals, progress);
        const easnode_reading last = read_at_update(signals);
        const easnode_clock clock = check.end();
        progress.hide();
        if (clock.verdict == EASNODE_RUNS_OTHERWISE) {
            leave_out(run, clock);
            return;
        }
        if (clock.verdict == EASNODE_CANNOT_TELL && !std::exchange(told_, true))
            remark(globals_, std::string("whether the CPUs run at the frequency cannot be told: ") +
                                 clock.text);
        const KernelRun result = difference(first, last, run);
        file_->add(run.kernel->name, run.khz, result);
        show(run, result);
    }

    /// Counters of energy are brought up to date only so often, and a reading between two updates
    /// is older than it looks: waits until there is an update, two seconds at most.
    easnode_reading read_at_update(const HeldSignals& signals) {
        constexpr double longest_update_seconds = 2;
        constexpr double poll_seconds = 0.002;
        easnode_reading reading = meter_.read();
        const double before = reading.energy.value;
        const double until = monotonic_seconds() + longest_update_seconds;
        while (reading.energy.quality == EASNODE_COUNTED && reading.energy.value == before &&
               monotonic_seconds() < until) {
            signals.sleep_or_throw(poll_seconds);
            reading = meter_.read();
        }
        return reading;
    }

    void leave_out(const PlannedRun& run, const easnode_clock& clock) {
        const std::string held = *clock.text != '\0' ? std::string(": ") + clock.text : "";
        left_out_.push_back(std::to_string(run.khz) + " kHz, " + run.kernel->name +
                            ": left out, the CPUs ran at " + std::to_string(clock.mean_khz) +
                            " kHz" + held);
        remark(globals_, left_out_.back());
    }

    /// A calibration that could use nothing has failed.
    void judge() {
        if (left_out_.empty())
            return;
        if (left_out_.size() == plan_.size() && before_ == 0)
            throw Failure(ExitCode::node,
                          "the CPUs did not run at any of the frequencies: the driver " +
                              std::string(everything_.info().driver) +
                              " takes the requests and does not follow them, or power or heat "
                              "holds the node",
                          "easctl node frequency shows what is set; the firmware may control the "
                          "frequency itself");
        globals_.outcome = ExitCode::found;
        remark(globals_, std::to_string(left_out_.size()) + " of " + std::to_string(plan_.size()) +
                             " runs were left out, since the CPUs ran at other frequencies");
    }

    static KernelRun difference(const easnode_reading& first, const easnode_reading& last,
                                const PlannedRun& run) {
        const auto grown = [&](easnode_figure easnode_reading::*figure, const char* what) {
            const auto before = value_of(first.*figure), now = value_of(last.*figure);
            const std::string place =
                std::to_string(run.khz) + " kHz, " + run.kernel->name + ": " + what;
            if (!before || !now)
                throw Failure(ExitCode::node, place + ": " + (last.*figure).reason,
                              "start the same command again");
            if (*now <= *before)
                throw Failure(ExitCode::node, place + " stands still", "easctl node info");
            return *now - *before;
        };
        KernelRun result;
        result.runs = 1;
        result.elapsed_s = static_cast<double>(last.time_ns - first.time_ns) / 1e9;
        result.power_w = grown(&easnode_reading::energy, "energy") / result.elapsed_s;
        result.cycles = grown(&easnode_reading::cycles, "the cycle counter");
        result.instructions = grown(&easnode_reading::instructions, "the instruction counter");
        result.memory_bytes = grown(&easnode_reading::memory, "the memory counter");
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
    NodeFrequency everything_{{}};
    NodeFrequency busy_{cpus_};
    NodeMeter meter_;
    easnode_reading first_;
    std::optional<CalibrationFile> file_;
    std::vector<PlannedRun> plan_;
    std::vector<std::string> left_out_;  // runs that the CPUs did not make at their frequency
    int khz_set_ = 0;
    bool told_ = false;       // that the clock cannot be told
    std::size_t before_ = 0;  // runs that the file held
    std::uint64_t done_ = 0;
    Json rows_ = Json::array();
};

void run_calibrate(const CalibrateOptions& options, Globals& globals) {
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
               "kHz, separated by commas; by default all that are offered, without turbo")
        .delimiter(',')
        .check(whole_number_from(1, 999999999))
        .type_name("KHZ");
    add_option(command, "--kernels", options->kernels, kernel_text())
        .delimiter(',')
        .check(one_of(kernel_names()))
        .type_name("NAME");
    options->meter.add_to(command);
    options->meter.add_force_to(command);
    set_action(command, [options, &globals] { run_calibrate(*options, globals); });
}

}  // namespace easctl
