#include "tools/easctl/node/FrequencyControl.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "common/node/EnergyUtil.h"
#include "common/node/ProcessorModel.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/cli/Signals.h"
#include "tools/easctl/node/CpuList.h"
#include "tools/easctl/node/NodeLinks.h"

namespace easctl {
namespace {

// The register's ratio times the bus clock is not exactly the step that is meant.
constexpr double nearness = 0.01;

// In the order of easnode_nominal_source.
constexpr std::array<const char*, 7> nominal_sources = {
    "unknown",         "base_frequency",       "turbo range of intel_pstate",
    "firmware (CPPC)", "highest of the table", "the processor's name",
    "the processor"};
// In the order of easnode_turbo.
constexpr std::array<const char*, 4> turbo_texts = {"no turbo switch", "turbo off", "turbo on",
                                                    "turbo on for some CPUs"};

easnode_problem empty_problem() {
    easnode_problem problem{};
    problem.size = sizeof problem;
    return problem;
}

[[noreturn]] void fail(int code, const easnode_problem& problem) {
    std::string text = problem.text;
    if (text.empty())
        text = easnode_error_text(code);
    if (problem.cpu >= 0 && text.find("cpu") == std::string::npos)
        text.insert(0, "cpu" + std::to_string(problem.cpu) + ": ");
    if (*problem.path != '\0' && text.find(problem.path) == std::string::npos)
        text += std::string(" (") + problem.path + ')';
    throw Failure(
        code == EASNODE_BAD_ARGUMENT ? ExitCode::usage : ExitCode::node, text,
        code == EASNODE_DENIED ? "run as root" : "easctl node frequency shows what is possible");
}

void require(int code, const easnode_problem& problem) {
    if (code != EASNODE_OK)
        fail(code, problem);
}

/// All rows of one of the functions that fill an array.
template <typename Row, typename Fill>
std::vector<Row> all_rows(const easnode_frequency* frequency, Fill fill) {
    std::vector<Row> rows;
    std::size_t count = 0;
    int code = fill(frequency, nullptr, 0, &count);
    while (code == EASNODE_TOO_SMALL) {
        rows.resize(count);
        code = fill(frequency, rows.data(), rows.size(), &count);
    }
    require(code, empty_problem());
    rows.resize(count);
    return rows;
}

/// From the platform-information register; 0 where the model is not known, or the register cannot
/// be read.
int register_khz() {
    const eas::TopologyReading reading = read_processors();
    if (reading.result != 0 || eas::find_model(reading.processors.model) == nullptr)
        return 0;
    return static_cast<int>(eas::nominal_clock(reading.processors) / 1000);
}

}  // namespace

NodeFrequency::NodeFrequency(const std::vector<int>& cpus) {
    std::string list = cpu_text(cpus);
    for (char& one : list)
        one = one == ' ' ? ',' : one;
    easnode_problem problem = empty_problem();
    easnode_frequency* handle = nullptr;
    const int code =
        easnode_frequency_open(cpus.empty() ? nullptr : list.c_str(), &handle, &problem);
    handle_.reset(handle);
    require(code, problem);
}

easnode_frequency_info NodeFrequency::info() const {
    easnode_frequency_info info{};
    info.size = sizeof info;
    require(easnode_frequency_describe(handle_.get(), &info), empty_problem());
    return info;
}

std::vector<easnode_step> NodeFrequency::steps() const {
    return all_rows<easnode_step>(handle_.get(), easnode_frequency_steps);
}

std::vector<easnode_cpu_frequency> NodeFrequency::rows() const {
    return all_rows<easnode_cpu_frequency>(handle_.get(), easnode_frequency_read);
}

std::string NodeFrequency::save(int khz) const {
    std::string text(EASNODE_FREQUENCY_TEXT_SIZE, '\0');
    std::size_t length = 0;
    easnode_problem problem = empty_problem();
    require(easnode_frequency_save(handle_.get(), khz, text.data(), text.size(), &length, &problem),
            problem);
    text.resize(length);
    return text;
}

void NodeFrequency::set(int khz) {
    easnode_problem problem = empty_problem();
    require(easnode_frequency_set(handle_.get(), khz, &problem), problem);
}

int NodeFrequency::give_back(const std::string& text) {
    return easnode_frequency_restore(handle_.get(), text.data(), text.size(), nullptr);
}

std::string frequency_text(const easnode_frequency_info& info) {
    const auto turbo = static_cast<std::size_t>(info.turbo);
    return std::string(info.driver) +
           (info.method == EASNODE_FREQUENCY_USERSPACE ? " by the governor userspace"
                                                       : " by its limits") +
           ", now " + info.governor + ", " +
           (turbo < turbo_texts.size() ? turbo_texts[turbo] : "turbo unknown") + ", " +
           std::to_string(info.lowest_khz) + " to " + std::to_string(info.highest_khz) + " kHz";
}

Nominal nominal_of(const NodeFrequency& frequency, const easnode_frequency_info& info) {
    const auto source = static_cast<std::size_t>(info.nominal_source);
    Nominal nominal{info.nominal_khz,
                    source < nominal_sources.size() ? nominal_sources[source] : "unknown"};
    const int khz = register_khz();
    if (khz == 0)
        return nominal;
    nominal = {khz, "platform-information register"};
    double nearest = nearness * khz;
    for (const easnode_step& step : frequency.steps()) {
        const double distance = std::abs(step.khz - khz);
        // Of two at the same distance the upper one is the turbo mark of a table.
        if (distance <= nearest && step.turbo == 0) {
            nearest = distance;
            nominal.khz = step.khz;
        }
    }
    return nominal;
}

std::vector<int> all_cpus() {
    constexpr std::size_t most_nodes_have_fewer = 1024;
    std::size_t count = most_nodes_have_fewer;
    std::vector<easnode_cpu> rows;
    int code = EASNODE_TOO_SMALL;
    while (code == EASNODE_TOO_SMALL) {
        rows.resize(count);
        code = easnode_topology_cpus(rows.data(), rows.size(), &count);
    }
    if (code != EASNODE_OK || count == 0)
        throw Failure(ExitCode::node, "/sys/devices/system/cpu lists no processor", "mount /sys");
    std::vector<int> cpus;
    for (std::size_t i = 0; i < count; ++i)
        cpus.push_back(rows[i].cpu);
    return cpus;
}

void set_governor(const std::vector<int>& cpus, const std::string& governor) {
    std::string name = governor;
    for (const int cpu : cpus) {
        const std::string folder =
            std::string(CPU_FREQENCY_PATH) + "/cpu" + std::to_string(cpu) + "/cpufreq/";
        if (EnergyUtil::set_cpu_governor(name.data(), cpu) == 1 &&
            first_line(folder + "scaling_governor").value_or("") == governor)
            continue;
        throw Failure(ExitCode::node,
                      "cpu" + std::to_string(cpu) + ": the governor \"" + governor +
                          "\" was refused (offered: " +
                          first_line(folder + "scaling_available_governors").value_or("none") + ')',
                      "easctl node frequency shows what is possible");
    }
}

ClockCheck::ClockCheck(const NodeFrequency& frequency, int khz) {
    require(easnode_frequency_check_begin(frequency.handle(), khz, &check_), empty_problem());
}

easnode_clock ClockCheck::end() {
    easnode_clock clock{};
    clock.size = sizeof clock;
    const int code = easnode_frequency_check_end(check_, &clock);
    check_ = nullptr;
    require(code, empty_problem());
    return clock;
}

FrequencyGuard::FrequencyGuard(NodeFrequency& frequency, int khz)
    : frequency_(frequency), saved_(frequency.save(khz)) {
    // A signal to the whole group must not end the watcher before it ignores them.
    const HeldSignals held;
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw Failure(ExitCode::found, "no socket can be opened");
    eas::UniqueFd reading(ends[0]);
    life_.reset(ends[1]);
    std::fflush(nullptr);
    watcher_ = ::fork();
    if (watcher_ < 0)
        throw Failure(ExitCode::found, "no process can be started");
    if (watcher_ == 0)
        watch(std::move(reading));
}

/// The watcher's whole life: a byte says that all is well, the end of the stream that this
/// process must do what the other one did not come to.
void FrequencyGuard::watch(eas::UniqueFd life) {
    ::setsid();
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        std::signal(number, SIG_IGN);
    life_.reset();
    char byte = 0;
    ssize_t got = 0;
    do {
        got = ::read(life.get(), &byte, 1);
    } while (got < 0 && errno == EINTR);
    if (got != 1)
        easnode_frequency_restore(nullptr, saved_.data(), saved_.size(), nullptr);
    ::_exit(0);
}

void FrequencyGuard::keep() {
    saved_.clear();
    static_cast<void>(::send(life_.get(), "", 1, MSG_NOSIGNAL));
}

bool FrequencyGuard::give_back() {
    const int code = saved_.empty() ? EASNODE_OK : frequency_.give_back(saved_);
    keep();
    return code == EASNODE_OK || code == EASNODE_MOVED;
}

FrequencyGuard::~FrequencyGuard() {
    if (!give_back())
        std::fputs(
            "easctl: governor or frequency could not be given back: see "
            "\"easctl node frequency\"\n",
            stderr);
    life_.reset();
    while (::waitpid(watcher_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace easctl
