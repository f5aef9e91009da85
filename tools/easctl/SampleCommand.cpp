// easctl node sample: runs a command and shows what it does to the node, a line per interval.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>

#include "base/UniqueFd.h"
#include "common/node/EnergySensors.h"
#include "tools/easctl/Doctor.h"
#include "tools/easctl/NodeCommands.h"
#include "tools/easctl/NodeSampler.h"

namespace easctl {
namespace {

constexpr int not_executable = 126;
constexpr int not_found = 127;

struct SampleOptions {
    double interval = 1;
    std::vector<std::string> command;
};

/// A started process that waits to be let go, so that its counters are there before it does
/// anything. It is ended with this object, and then waited for.
class HeldCommand {
  public:
    HeldCommand(const std::vector<std::string>& command, const HeldSignals& signals) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw Failure(ExitCode::found, "no pipe can be opened");
        eas::UniqueFd waiting(ends[0]);
        go_.reset(ends[1]);
        std::fflush(nullptr);
        pid_ = ::fork();
        if (pid_ < 0)
            throw Failure(ExitCode::found, "no process can be started");
        if (pid_ == 0)
            become(command, waiting.get(), signals);
    }
    ~HeldCommand() {
        go_.reset();  // a command that was not let go ends by itself
        if (!ended_)
            ::waitpid(pid_, nullptr, 0);
    }
    HeldCommand(const HeldCommand&) = delete;
    HeldCommand& operator=(const HeldCommand&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    void let_go() {
        static_cast<void>(::write(go_.get(), "", 1) == 1);
        go_.reset();
    }

    [[nodiscard]] bool ended() {
        int status = 0;
        if (!ended_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
            ended_ = true;
            result_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        return ended_;
    }
    [[nodiscard]] int result() const { return result_; }

  private:
    [[noreturn]] void become(const std::vector<std::string>& command, int waiting,
                             const HeldSignals& signals) {
        std::vector<std::string> words = command;
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        go_.reset();  // so that the end of the other process is seen
        char byte = 0;
        // What the command prints must not get between the samples.
        if (::read(waiting, &byte, 1) != 1 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
            ::_exit(not_executable);
        ::pthread_sigmask(SIG_SETMASK, &signals.before(), nullptr);
        ::execvp(arguments[0], arguments.data());
        const int error = errno;
        std::fprintf(stderr, "easctl: %s: %s\n", printable(command[0]).c_str(),
                     std::strerror(error));
        ::_exit(error == ENOENT ? not_found : not_executable);
    }

    eas::UniqueFd go_;
    pid_t pid_ = -1;
    bool ended_ = false;
    int result_ = 0;
};

/// One figure of a line; nothing when its source is missing.
struct Figure {
    const char* title;
    const char* member;
    int decimals;
    std::optional<double> value;
    LinkStatus without = LinkStatus::missing;  // a value: why there is none
};

class SampleTable {
  public:
    explicit SampleTable(const NodeSampler& sampler) : sampler_(sampler) {
        for (const Link& link : examine_node({})) {
            if (link.name == memory_link)
                memory_state_ = link.status;
            if (link.status != LinkStatus::denied || link.name == memory_link)
                continue;
            if (link.name == "energy meter")
                energy_state_ = link.status;
            else if (link.name.compare(0, 7, "cpufreq") != 0)
                counter_state_ = link.status;
        }
    }

    /// Rates between two samples; energy since `first`.
    [[nodiscard]] std::vector<Figure> figures(const NodeSample& first, const NodeSample& before,
                                              const NodeSample& now) const {
        const double seconds = now.seconds - before.seconds;
        const auto counted = [&](std::uint64_t hwrusage::*field) {
            return static_cast<double>(now.hardware.*field - before.hardware.*field);
        };
        const auto energy = [&](const NodeSample& since) {
            return static_cast<double>(now.microjoules - since.microjoules) / 1e6;
        };
        const auto when = [](bool known, double value) {
            return known ? std::optional<double>(value) : std::nullopt;
        };
        const bool core = sampler_.has_counters(), meter = sampler_.has_energy();
        const double instructions = counted(&hwrusage::instructions);
        const bool margin =
            sampler_.has_hardware() && now.hardware.inlet_temperature != NO_TEMPERATURE;
        const bool memory = sampler_.has_hardware() && memory_state_ == LinkStatus::ok;
        return {
            {"time s", "time_s", 2, now.seconds - first.seconds},
            {"Gcycles/s", "giga_cycles_per_second", 3,
             when(core, counted(&hwrusage::cycles) / 1e9 / seconds), counter_state_},
            {"GIPS", "giga_instructions_per_second", 3, when(core, instructions / 1e9 / seconds),
             counter_state_},
            {"cycles/instr", "cycles_per_instruction", 3,
             when(core && instructions > 0, counted(&hwrusage::cycles) / instructions),
             counter_state_},
            {"GFLOP/s", "giga_flops", 3, when(core, counted(&hwrusage::flops) / 1e9 / seconds),
             counter_state_},
            {"memory GB/s", "memory_gb_per_second", 3,
             when(memory, counted(&hwrusage::membytes_xferred) / 1e9 / seconds),
             memory_state_ == LinkStatus::ok ? counter_state_ : memory_state_},
            {"margin C", "temperature_margin", 0,
             when(margin,
                  static_cast<double>(static_cast<std::int64_t>(now.hardware.inlet_temperature))),
             counter_state_},
            {"energy J", "energy_j", 1, when(meter, energy(first)), energy_state_},
            {"power W", "power_w", 1, when(meter, energy(before) / seconds), energy_state_},
        };
    }

    static std::string header(const std::vector<Figure>& figures) {
        std::string line;
        for (const Figure& figure : figures)
            line += padded(figure.title);
        return line + '\n';
    }

    [[nodiscard]] std::string line(const std::vector<Figure>& figures) const {
        std::string line;
        for (const Figure& figure : figures)
            line += padded(figure.value ? number(*figure.value, figure.decimals)
                                        : name_of(figure.without));
        return line + '\n';
    }

    static Json json(const std::vector<Figure>& figures) {
        Json json = Json::object();
        for (const Figure& figure : figures)
            json[figure.member] = figure.value ? Json(*figure.value) : Json(nullptr);
        return json;
    }

  private:
    static std::string padded(const std::string& text) {
        constexpr std::size_t width = 13;
        return std::string(width - std::min(width, text.size()), ' ') + text;
    }

    const NodeSampler& sampler_;
    LinkStatus counter_state_ = LinkStatus::missing;
    LinkStatus memory_state_ = LinkStatus::missing;
    LinkStatus energy_state_ = LinkStatus::missing;
};

/// True once the command ended; signals that arrive are passed on to it.
bool ended_within(double seconds, HeldCommand& command, const HeldSignals& signals) {
    const double until = monotonic_seconds() + seconds;
    while (!command.ended()) {
        const double left = until - monotonic_seconds();
        if (left <= 0)
            return false;
        const int arrived = signals.sleep(left);
        if (arrived != 0 && arrived != SIGCHLD && !command.ended())
            ::kill(command.pid(), arrived);
    }
    return true;
}

void say_what_is_missing(const Globals& globals) {
    for (const Link& link : examine_node({})) {
        if (is_broken(link) && link.name.compare(0, 7, "cpufreq") != 0 &&
            link.name != "frequencies")
            remark(globals, link.name + ' ' + name_of(link.status) + ": " + link.found +
                                "; what to do: " + link.remedy);
    }
}

void run_sample(const SampleOptions& options, Globals& globals) {
    HeldSignals signals;
    signals.hold(SIGCHLD);
    HeldCommand command(options.command, signals);
    const NodeSampler sampler(command.pid());
    const SampleTable table(sampler);
    say_what_is_missing(globals);
    if (!sampler.has_hardware() && !sampler.has_energy())
        throw Failure(ExitCode::node,
                      "nothing can be sampled on this node; the command was not run",
                      "easctl node info");
    const NodeSample first = sampler.take();
    NodeSample before = first;
    Json samples = Json::array();
    command.let_go();
    for (bool ended = false; !ended;) {
        ended = ended_within(options.interval, command, signals);
        const NodeSample now = sampler.take();
        const auto figures = table.figures(first, before, now);
        if (globals.json) {
            samples.push_back(SampleTable::json(figures));
        } else {
            print((before.seconds == first.seconds ? SampleTable::header(figures) : "") +
                  table.line(figures));
            flush_output();
        }
        before = now;
    }
    if (globals.json)
        print_json({{"samples", samples},
                    {"whole_run", SampleTable::json(table.figures(first, first, before))},
                    {"exit_status", command.result()}});
    globals.outcome = static_cast<ExitCode>(command.result());
}

}  // namespace

void add_sample_command(CLI::App& node, Globals& globals) {
    CLI::App& command = add_command(
        node, "sample", "runs a command and shows what it does to the node",
        "easctl node sample -- ./solver input\n"
        "easctl node sample --interval 5 --json -- make -j8\n"
        "The exit code is the command's (128 + N when signal N ended it, 126 or 127 when it\n"
        "cannot be started); 6 when nothing can be sampled. The command prints on standard error.");
    const auto options = std::make_shared<SampleOptions>();
    command.add_option("--interval", options->interval, "seconds between two lines")
        ->check(CLI::Range(0.01, 86400.0))
        ->capture_default_str();
    command.add_option("command", options->command, "the command, behind \"--\"")
        ->required()
        ->type_name("COMMAND...");
    command.callback([options, &globals] { run_sample(*options, globals); });
}

}  // namespace easctl
