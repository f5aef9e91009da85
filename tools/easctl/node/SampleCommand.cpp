// easctl node sample: runs a command and shows what it does to the node, a line per interval.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "base/UniqueFd.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Signals.h"
#include "tools/easctl/node/NodeCommands.h"
#include "tools/easctl/node/NodeMeter.h"

namespace easctl {
namespace {

constexpr int not_executable = 126;
constexpr int not_found = 127;

struct SampleOptions {
    double interval = 1;
    MeterOptions meter;
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

/// One figure of a line; no value when its source is missing.
struct Figure {
    const char* title;
    const char* member;
    int decimals;
    std::optional<double> value;
};

/// The figures of a run, reading by reading.
class SampleTable {
  public:
    explicit SampleTable(const easnode_reading& first)
        : first_(first), before_(first), now_(first) {}

    void add(const easnode_reading& reading) {
        before_ = now_;
        now_ = reading;
    }

    [[nodiscard]] const easnode_reading& last() const { return now_; }

    /// Rates since the reading before, with the energy so far; or all of the whole run.
    [[nodiscard]] std::vector<Figure> figures(bool of_whole_run = false) const {
        const easnode_reading& from = of_whole_run ? first_ : before_;
        const double seconds = static_cast<double>(now_.time_ns - from.time_ns) / 1e9;
        const auto growth = [&](Member figure) { return difference(from, figure); };
        const auto over = [](std::optional<double> value, double divisor) {
            return value && divisor > 0 ? std::optional(*value / divisor) : std::nullopt;
        };
        const auto rate = [&](Member figure, double unit) {
            return over(over(growth(figure), unit), seconds);
        };
        return {
            {"time s", "time_s", 2, static_cast<double>(now_.time_ns - first_.time_ns) / 1e9},
            {"Gcycles/s", "giga_cycles_per_second", 3, rate(&easnode_reading::cycles, 1e9)},
            {"GIPS", "giga_instructions_per_second", 3, rate(&easnode_reading::instructions, 1e9)},
            {"cycles/instr", "cycles_per_instruction", 3,
             over(growth(&easnode_reading::cycles),
                  growth(&easnode_reading::instructions).value_or(0))},
            {"memory GB/s", "memory_gb_per_second", 3, rate(&easnode_reading::memory, 1e9)},
            {"energy J", "energy_j", 1, difference(first_, &easnode_reading::energy)},
            {"power W", "power_w", 1, rate(&easnode_reading::energy, 1)},
        };
    }

    static std::string header(const std::vector<Figure>& figures) {
        std::string line;
        for (const Figure& figure : figures)
            line += padded(figure.title);
        return line + '\n';
    }

    static std::string line(const std::vector<Figure>& figures) {
        std::string line;
        for (const Figure& figure : figures)
            line += padded(figure.value ? number(*figure.value, figure.decimals) : "missing");
        return line + '\n';
    }

    static Json json(const std::vector<Figure>& figures) {
        Json json = Json::object();
        for (const Figure& figure : figures)
            json[figure.member] = figure.value;
        return json;
    }

  private:
    using Member = easnode_figure easnode_reading::*;

    /// Empty unless both readings have it.
    [[nodiscard]] std::optional<double> difference(const easnode_reading& from,
                                                   Member figure) const {
        const auto then = value_of(from.*figure), now = value_of(now_.*figure);
        return then && now ? std::optional(*now - *then) : std::nullopt;
    }

    static std::string padded(const std::string& text) {
        constexpr std::size_t width = 13;
        return std::string(width - std::min(width, text.size()), ' ') + text;
    }

    easnode_reading first_, before_, now_;
};

/// True once the command ended; signals that arrive are passed on to it.
bool ended_within(double seconds, HeldCommand& command, const HeldSignals& signals,
                  NodeMeter& meter) {
    constexpr double longest_pause = 0.25;  // for sources that must be read often
    const double until = monotonic_seconds() + seconds;
    while (!command.ended()) {
        const double left = until - monotonic_seconds();
        if (left <= 0)
            return false;
        const int arrived = signals.sleep(std::min(left, longest_pause));
        if (arrived != 0 && arrived != SIGCHLD && !command.ended())
            ::kill(command.pid(), arrived);
        meter.keep_up();
    }
    return true;
}

struct NamedFigure {
    const char* name;
    easnode_figure easnode_reading::*figure;
};
constexpr std::array<NamedFigure, 3> sources = {{
    {"instructions", &easnode_reading::instructions},
    {"memory", &easnode_reading::memory},
    {"energy", &easnode_reading::energy},
}};

/// Where the figures come from, and what they are of.
void say_sources(const easnode_reading& reading, const Globals& globals) {
    for (const auto& [name, figure] : sources)
        remark(globals, std::string(name) + ": " + text_of(reading.*figure));
}

Json sources_json(const easnode_reading& reading) {
    Json json = Json::object();
    for (const auto& [name, member] : sources) {
        const easnode_figure& figure = reading.*member;
        const bool good = value_of(figure).has_value();
        json[name] = {{"source", *figure.source != '\0' ? Json(figure.source) : Json(nullptr)},
                      {"covers", good ? Json(figure.covers) : Json(nullptr)},
                      {"extent", good ? Json(name_of_extent(figure.extent)) : Json(nullptr)},
                      {"reason", good ? Json(nullptr) : Json(figure.reason)}};
    }
    return json;
}

void require_a_figure(const easnode_reading& reading) {
    for (const NamedFigure& one : sources) {
        if (value_of(reading.*one.figure))
            return;
    }
    throw Failure(ExitCode::node, "nothing can be sampled on this node; the command was not run",
                  "easctl node info");
}

Json whole_run_json(const SampleTable& table) {
    Json json = SampleTable::json(table.figures(true));
    json["cycles"] = value_of(table.last().cycles);
    json["instructions"] = value_of(table.last().instructions);
    json["memory_bytes"] = value_of(table.last().memory);
    return json;
}

void run_sample(const SampleOptions& options, Globals& globals) {
    HeldSignals signals;
    signals.hold(SIGCHLD);
    HeldCommand command(options.command, signals);
    NodeMeter meter(options.meter, command.pid());
    SampleTable table(meter.read());
    require_a_figure(table.last());
    say_sources(table.last(), globals);
    Json samples = Json::array();
    command.let_go();
    for (bool first = true, ended = false; !ended;) {
        ended = ended_within(options.interval, command, signals, meter);
        table.add(meter.read());
        const auto figures = table.figures();
        if (globals.json) {
            samples.push_back(SampleTable::json(figures));
        } else {
            print((first ? SampleTable::header(figures) : "") + SampleTable::line(figures));
            flush_output();
        }
        first = false;
    }
    if (globals.json)
        print_json({{"samples", samples},
                    {"whole_run", whole_run_json(table)},
                    {"sources", sources_json(table.last())},
                    {"exit_status", command.result()}});
    globals.outcome = static_cast<ExitCode>(command.result());
}

}  // namespace

void add_sample_command(CLI::App& node, Globals& globals) {
    CLI::App& command = add_command(
        node, "sample",
        "runs a command and shows what it does to the node: its own cycles and instructions, "
        "memory\n"
        "traffic and energy of the node. The exit code is the command's\n"
        "(128 + N when signal N ended it, 126 or 127 when it cannot be started); 6 when nothing\n"
        "can be sampled. The command prints on standard error.",
        "easctl node sample -- ./solver input\n"
        "easctl node sample --interval 5 --json -- make -j8");
    const auto options = std::make_shared<SampleOptions>();
    add_option(command, "--interval", options->interval, "seconds between two lines")
        .check(number_from(0.01, 86400.0))
        .show_default();
    options->meter.add_to(command);
    options->meter.add_force_to(command);
    add_option(command, "command", options->command, "the command, behind \"--\"")
        .required()
        .type_name("COMMAND...");
    set_action(command, [options, &globals] { run_sample(*options, globals); });
}

}  // namespace easctl
