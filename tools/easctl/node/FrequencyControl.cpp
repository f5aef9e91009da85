#include "tools/easctl/node/FrequencyControl.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/node/EnergyUtil.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/cli/Signals.h"
#include "tools/easctl/node/NodeLinks.h"

namespace easctl {
namespace {

// The kernel may compute the present frequency from counters, so it is never met exactly.
constexpr double tolerance = 0.02;
constexpr double settling_seconds = 0.5;
// A table's first entry that is 1000 kHz above the next stands for "as fast as turbo allows".
constexpr int turbo_step_khz = 1000;

int to_khz(const std::string& text) {
    return std::atoi(text.c_str());
}

bool is_turbo(int cpu, int khz) {
    std::vector<int> table;
    EnergyUtil::get_available_freqs(table, cpu);
    return std::find(table.begin(), table.end(), khz - turbo_step_khz) != table.end();
}

bool runs_at(int cpu, int khz) {
    const double present = EnergyUtil::get_current_frequency(cpu);
    if (present >= khz * (1 - tolerance) && present <= khz * (1 + tolerance))
        return true;
    return present > khz && is_turbo(cpu, khz);
}

std::string cpu_name(int cpu) {
    return "cpu" + std::to_string(cpu);
}

/// The request was accepted, but the frequency is another one.
[[noreturn]] void fail_ignored(int cpu, int khz) {
    const int present = EnergyUtil::get_current_frequency(cpu);
    const int highest = to_khz(read_cpufreq(cpu, "scaling_max_freq"));
    const int lowest = to_khz(read_cpufreq(cpu, "scaling_min_freq"));
    const std::string shown =
        cpu_name(cpu) + ": " + std::to_string(khz) + " kHz was set, but it runs at " +
        (present > 0 ? std::to_string(present) + " kHz" : "an unknown frequency");
    if (khz > highest || khz < lowest)
        throw Failure(ExitCode::node,
                      shown + ": outside of the limits scaling_min_freq " + std::to_string(lowest) +
                          " and scaling_max_freq " + std::to_string(highest),
                      "widen the limits, or leave this frequency out");
    const std::string steps = read_cpufreq(cpu, "scaling_available_frequencies");
    if (!steps.empty() &&
        (' ' + steps + ' ').find(' ' + std::to_string(khz) + ' ') == std::string::npos)
        throw Failure(ExitCode::node, shown + ": not one of the driver's steps",
                      "choose one of " + steps);
    throw Failure(
        ExitCode::node,
        shown + ": the driver " + frequency_driver(cpu) +
            " takes the request and does not follow it",
        "the hardware may control the P-states itself: boot with intel_pstate=disable, or "
        "switch that off in the firmware; or the node is held by a power or heat limit");
}

[[noreturn]] void fail_refused(int cpu, const std::string& what) {
    for (const Link& link : examine_node(frequency_links)) {
        if (is_broken(link))
            throw Failure(ExitCode::node,
                          cpu_name(cpu) + ": " + what + " was refused: driver " +
                              frequency_driver(cpu) + ", " + link.name + ' ' +
                              name_of(link.status) + ": " + link.found,
                          link.remedy);
    }
    throw Failure(ExitCode::node,
                  cpu_name(cpu) + ": " + what + " was refused by the driver " +
                      frequency_driver(cpu) +
                      " (governors: " + read_cpufreq(cpu, "scaling_available_governors") + ")",
                  "easctl node frequency shows what is possible");
}

}  // namespace

std::string read_cpufreq(int cpu, const char* file) {
    return first_line(std::string(CPU_FREQENCY_PATH) + "/cpu" + std::to_string(cpu) + "/cpufreq/" +
                      file)
        .value_or("");
}

std::string frequency_driver(int cpu) {
    const std::string driver = read_cpufreq(cpu, "scaling_driver");
    return driver.empty() ? "unknown" : driver;
}

std::vector<int> all_cpus() {
    std::vector<int> cpus;
    if (EnergyUtil::get_all_cpu_ids(cpus) != 1)
        throw Failure(ExitCode::node, std::string(PROC_CPUINFO_PATH) + " lists no processor",
                      "mount /proc");
    return cpus;
}

void check_frequency(const std::vector<int>& cpus, int khz, double patience) {
    const double until = monotonic_seconds() + patience;
    for (const int cpu : cpus) {
        while (!runs_at(cpu, khz)) {
            if (monotonic_seconds() >= until)
                fail_ignored(cpu, khz);
            const timespec pause{0, 10000000};
            ::nanosleep(&pause, nullptr);
        }
    }
}

void set_frequency(const std::vector<int>& cpus, int khz) {
    for (const int cpu : cpus) {
        if (EnergyUtil::set_cpu_frequency(khz, cpu) != 1)
            fail_refused(cpu, "the frequency " + std::to_string(khz) + " kHz");
    }
    check_frequency(cpus, khz, settling_seconds);
}

void set_governor(const std::vector<int>& cpus, const std::string& governor) {
    std::string name = governor;
    for (const int cpu : cpus) {
        if (EnergyUtil::set_cpu_governor(name.data(), cpu) != 1 ||
            read_cpufreq(cpu, "scaling_governor") != governor)
            fail_refused(cpu, "the governor \"" + governor + "\"");
    }
}

FrequencyGuard::FrequencyGuard(const std::vector<int>& cpus) {
    for (const int cpu : cpus)
        saved_.push_back({cpu, read_cpufreq(cpu, "scaling_governor"),
                          to_khz(read_cpufreq(cpu, "scaling_setspeed"))});
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
        restore();
    ::_exit(0);
}

bool FrequencyGuard::restore() {
    bool good = true;
    for (Saved& saved : saved_) {
        if (saved.governor.empty())  // there was none, so nothing could be set
            continue;
        if (saved.governor == "userspace")
            good &= EnergyUtil::set_cpu_frequency(saved.khz, saved.cpu) == 1;
        else
            good &= EnergyUtil::set_cpu_governor(saved.governor.data(), saved.cpu) == 1;
    }
    return good;
}

void FrequencyGuard::keep() {
    saved_.clear();
    static_cast<void>(::send(life_.get(), "", 1, MSG_NOSIGNAL));
}

bool FrequencyGuard::give_back() {
    const bool good = restore();
    keep();
    return good;
}

FrequencyGuard::~FrequencyGuard() {
    if (!restore())
        std::fputs(
            "easctl: governor or frequency could not be given back: see "
            "\"easctl node frequency\"\n",
            stderr);
    static_cast<void>(::send(life_.get(), "", 1, MSG_NOSIGNAL));
    life_.reset();
    while (::waitpid(watcher_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace easctl
