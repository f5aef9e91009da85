// easctl node sample: runs a command and shows what it does to the node, a line per interval.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "base/UniqueFd.h"
#include "common/node/EnergySensors.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/node/GrowingCount.h"
#include "tools/easctl/node/NodeCommands.h"
#include "tools/easctl/node/NodeLinks.h"
#include "tools/easctl/node/NodeSampler.h"

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
        for (const Link& link : examine_node(measuring_links)) {
            if (link.id == LinkId::memory_counters)
                memory_state_ = link.status;
            else if (link.status != LinkStatus::denied)
                continue;
            else if (link.id == LinkId::energy_meter)
                energy_state_ = link.status;
            else
                counter_state_ = link.status;
        }
    }

    void add(const NodeSample& sample) {
        if (!std::exchange(begun_, true))
            first_s_ = now_s_ = sample.seconds;
        before_s_ = std::exchange(now_s_, sample.seconds);
        const bool counted = sampler_.has_counters() && sample.hardware.tstamp != 0;
        const auto read = [](GrowingCount& count, bool known, std::uint64_t value) {
            count.read(known ? std::optional<std::uint64_t>(value) : std::nullopt);
        };
        read(cycles_, counted, sample.hardware.cycles);
        read(instructions_, counted, sample.hardware.instructions);
        read(flops_, counted, sample.hardware.flops);
        read(memory_, sampler_.has_hardware() && memory_state_ == LinkStatus::ok,
             sample.hardware.membytes_xferred);
        read(energy_, sample.microjoules != 0, sample.microjoules);
        margin_ = sample.hardware.inlet_temperature;
    }

    /// Rates since the sample before, with the energy so far; or all of the whole run.
    [[nodiscard]] std::vector<Figure> figures(bool of_whole_run = false) const {
        const double seconds = now_s_ - (of_whole_run ? first_s_ : before_s_);
        const auto growth = [&](const GrowingCount& count) {
            return of_whole_run ? count.whole() : count.step();
        };
        const auto over = [](std::optional<double> value, double divisor) {
            return value && divisor > 0 ? std::optional(*value / divisor) : std::nullopt;
        };
        const auto rate = [&](const GrowingCount& count, double unit) {
            return over(over(growth(count), unit), seconds);
        };
        std::optional<double> margin;
        if (sampler_.has_hardware() && margin_ != NO_TEMPERATURE)
            margin = static_cast<double>(static_cast<std::int64_t>(margin_));
        return {
            {"time s", "time_s", 2, now_s_ - first_s_},
            {"Gcycles/s", "giga_cycles_per_second", 3, rate(cycles_, 1e9), counter_state_},
            {"GIPS", "giga_instructions_per_second", 3, rate(instructions_, 1e9), counter_state_},
            {"cycles/instr", "cycles_per_instruction", 3,
             over(growth(cycles_), growth(instructions_).value_or(0)), counter_state_},
            {"GFLOP/s", "giga_flops", 3, rate(flops_, 1e9), counter_state_},
            {"memory GB/s", "memory_gb_per_second", 3, rate(memory_, 1e9),
             memory_state_ == LinkStatus::ok ? counter_state_ : memory_state_},
            {"margin C", "temperature_margin_c", 0, margin, counter_state_},
            {"energy J", "energy_j", 1, over(energy_.whole(), 1e6), energy_state_},
            {"power W", "power_w", 1, rate(energy_, 1e6), energy_state_},
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
    bool begun_ = false;
    double first_s_ = 0, before_s_ = 0, now_s_ = 0;
    GrowingCount cycles_, instructions_, flops_, memory_, energy_;
    std::uint64_t margin_ = NO_TEMPERATURE;
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
    for (const Link& link : examine_node(measuring_links)) {
        if (is_broken(link))
            remark(globals, trouble_of(link));
    }
}

void run_sample(const SampleOptions& options, Globals& globals) {
    HeldSignals signals;
    signals.hold(SIGCHLD);
    HeldCommand command(options.command, signals);
    const NodeSampler sampler(command.pid());
    SampleTable table(sampler);
    say_what_is_missing(globals);
    if (!sampler.has_hardware() && !sampler.has_energy())
        throw Failure(ExitCode::node,
                      "nothing can be sampled on this node; the command was not run",
                      "easctl node info");
    table.add(sampler.take());
    Json samples = Json::array();
    command.let_go();
    for (bool first = true, ended = false; !ended;) {
        ended = ended_within(options.interval, command, signals);
        table.add(sampler.take());
        const auto figures = table.figures();
        if (globals.json) {
            samples.push_back(SampleTable::json(figures));
        } else {
            print((first ? SampleTable::header(figures) : "") + table.line(figures));
            flush_output();
        }
        first = false;
    }
    if (globals.json)
        print_json({{"samples", samples},
                    {"whole_run", SampleTable::json(table.figures(true))},
                    {"exit_status", command.result()}});
    globals.outcome = static_cast<ExitCode>(command.result());
}

}  // namespace

void add_sample_command(CLI::App& node, Globals& globals) {
    CLI::App& command = add_command(
        node, "sample",
        "runs a command and shows what it does to the node. The exit code is the command's\n"
        "(128 + N when signal N ended it, 126 or 127 when it cannot be started); 6 when nothing\n"
        "can be sampled. The command prints on standard error.",
        "easctl node sample -- ./solver input\n"
        "easctl node sample --interval 5 --json -- make -j8");
    const auto options = std::make_shared<SampleOptions>();
    add_option(command, "--interval", options->interval, "seconds between two lines")
        .check(number_from(0.01, 86400.0))
        .show_default();
    add_option(command, "command", options->command, "the command, behind \"--\"")
        .required()
        .type_name("COMMAND...");
    set_action(command, [options, &globals] { run_sample(*options, globals); });
}

}  // namespace easctl
