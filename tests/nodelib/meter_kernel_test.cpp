// The meter against the kernel of this machine: its events, its limits, its processes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/perf_event.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "node/meter/CoreEvents.h"
#include "node/node.h"
#include "tests/support/ScratchFolder.h"

namespace eas::node {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

struct MeterCloser {
    void operator()(easnode_meter* meter) const { easnode_meter_close(meter); }
};
using OwnedMeter = std::unique_ptr<easnode_meter, MeterCloser>;

easnode_meter_options plain_options() {
    easnode_meter_options options{};
    options.size = sizeof options;
    return options;
}

OwnedMeter opened(const easnode_meter_options& options) {
    easnode_meter* meter = nullptr;
    EXPECT_EQ(EASNODE_OK, easnode_meter_open(&options, &meter));
    return OwnedMeter(meter);
}

easnode_reading reading_of(const OwnedMeter& meter) {
    easnode_reading reading{};
    reading.size = sizeof reading;
    EXPECT_EQ(EASNODE_OK, easnode_meter_read(meter.get(), &reading));
    return reading;
}

size_t descriptors() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                             std::filesystem::directory_iterator()));
}

/// Works until this thread has had so much of a CPU.
void spin_cpu(std::chrono::milliseconds time) {
    const auto used = [] {
        timespec now{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    const auto until = used() + time;
    while (used() < until) {
    }
}

// Software events need no hardware: the groups, the times and the process's tree are real.
constexpr EventCode software[] = {{PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CPU_CLOCK},
                                  {PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CONTEXT_SWITCHES}};
constexpr EventSet clock_and_switches = {software, 2, "software events"};
constexpr EventCode task_clock[] = {{PERF_TYPE_SOFTWARE, PERF_COUNT_SW_TASK_CLOCK}};
constexpr EventSet clock_of_tasks = {task_clock, 1, "task clock"};

TEST(CpuEvents, CountOnEveryCpuInOneReadingEach) {
    std::string reason;
    CpuEvents events;
    ASSERT_TRUE(events.open(clock_and_switches, reason)) << reason;
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(100ms);
    EventTotals totals;
    Result result;
    ASSERT_TRUE(events.read(totals, result)) << result.reason;
    const std::chrono::duration<double, std::nano> passed =
        std::chrono::steady_clock::now() - begin;
    const auto cpus = static_cast<double>(::sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_NEAR(1, static_cast<double>(totals.values[0]) / (passed.count() * cpus), 0.1);
    EXPECT_GT(totals.values[1], 0U) << "this thread slept";
}

TEST(TaskEvents, CountAProcessItsThreadsAndItsChildrenOnly) {
    std::string reason;
    std::atomic<bool> goes_on = true;
    std::thread another([&] {
        while (goes_on)
            std::this_thread::sleep_for(1ms);
        spin_cpu(30ms);
    });
    TaskEvents events;
    ASSERT_TRUE(events.open(clock_of_tasks, ::getpid(), reason)) << reason;
    goes_on = false;
    another.join();
    const pid_t child = ::fork();
    if (child == 0) {
        spin_cpu(50ms);
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    EventTotals totals;
    Result result;
    ASSERT_TRUE(events.read(totals, result)) << result.reason;
    const double milliseconds = static_cast<double>(totals.values[0]) / 1e6;
    EXPECT_GE(milliseconds, 60);
    EXPECT_LE(milliseconds, 400);
    TaskEvents of_nobody;
    EXPECT_FALSE(of_nobody.open(clock_of_tasks, child, reason));
    EXPECT_THAT(reason, HasSubstr("task clock: "));
}

TEST(Meter, RefusesWhatItCannotDoAndLeavesNothingOpen) {
    const size_t before = descriptors();
    easnode_meter* meter = nullptr;
    EXPECT_EQ(EASNODE_BAD_ARGUMENT, easnode_meter_open(nullptr, nullptr));
    easnode_meter_options options = plain_options();
    options.size = 8;
    EXPECT_EQ(EASNODE_BAD_ARGUMENT, easnode_meter_open(&options, &meter));
    options = plain_options();
    options.energy_sources = "powercap,sun";
    EXPECT_EQ(EASNODE_NO_SUCH_SOURCE, easnode_meter_open(&options, &meter));
    options = plain_options();
    options.process = 0x7ffffffe;
    EXPECT_EQ(EASNODE_NO_SUCH_PROCESS, easnode_meter_open(&options, &meter));
    const char* const relative[] = {"sh", nullptr};
    options = plain_options();
    options.command = relative;
    EXPECT_EQ(EASNODE_BAD_ARGUMENT, easnode_meter_open(&options, &meter));
    EXPECT_EQ(nullptr, meter);
    options = plain_options();
    options.registers = EASNODE_REGISTERS_LOOK + 1;
    EXPECT_EQ(EASNODE_BAD_ARGUMENT, easnode_meter_open(&options, &meter));
    options = plain_options();
    options.core_sources = options.memory_sources = options.energy_sources = "none";
    OwnedMeter nothing = opened(options);
    EXPECT_STREQ("not asked for", reading_of(nothing).cycles.reason);
    easnode_reading small{};
    small.size = sizeof small.size;
    EXPECT_EQ(EASNODE_BAD_ARGUMENT, easnode_meter_read(nothing.get(), &small));
    easnode_source source{};
    source.size = sizeof source;
    for (const auto& [figure, index] : {std::pair(0, 99), {-1, 0}, {EASNODE_FIGURES + 0, 0}})
        EXPECT_EQ(EASNODE_BAD_ARGUMENT,
                  easnode_meter_source(nothing.get(), figure, static_cast<size_t>(index), &source));
    opened(plain_options()).reset();
    nothing.reset();
    easnode_meter_close(nullptr);
    EXPECT_EQ(before, descriptors());
}

/// A meter whose energy is that of a script.
class SiteCommandTest : public ::testing::Test {
  protected:
    OwnedMeter meter_of(const std::string& body, int gives = EASNODE_COMMAND_WATTS) {
        path_ = (folder_.path() / "power").string();
        write(body);
        const char* const command[] = {"/bin/sh", path_.c_str(), nullptr};
        easnode_meter_options options = plain_options();
        options.command = command;
        options.command_gives = gives;
        options.command_timeout_ms = timeout_;
        options.core_sources = options.memory_sources = "none";
        options.energy_sources = "command";
        return opened(options);
    }
    void write(const std::string& body) { std::ofstream(path_) << body; }

    test::ScratchFolder folder_;
    std::string path_;
    unsigned timeout_ = 20000;  // ms
};

TEST_F(SiteCommandTest, GivesWattsOverTimeOrJoulesAsTheyAre) {
    OwnedMeter meter = meter_of("echo 200 W");
    std::this_thread::sleep_for(100ms);
    easnode_reading reading = reading_of(meter);
    EXPECT_EQ(EASNODE_INTEGRATED, reading.energy.quality) << reading.energy.reason;
    EXPECT_NEAR(200, reading.energy.value / (static_cast<double>(reading.time_ns) / 1e9), 60);
    EXPECT_THAT(reading.energy.covers,
                HasSubstr("site's power command, integrated from 2 samples"));
    EXPECT_EQ(60000000000U, reading.energy.read_within_ns);

    ASSERT_EQ(0, ::mkfifo((path_ + ".fifo").c_str(), 0600));
    const UniqueFd fifo(::open((path_ + ".fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    meter = meter_of("sleep 60 >$0.fifo & printf %60000d 200");  // few digits
    EXPECT_STREQ("", reading_of(meter).energy.reason);
    pollfd left_over{fifo.get(), POLLIN, 0};
    EXPECT_EQ(1, ::poll(&left_over, 1, 20000)) << "a process of the command's lives on";

    meter = meter_of("echo 1000 J", EASNODE_COMMAND_JOULES);
    write("echo 1500 J");
    reading = reading_of(meter);
    EXPECT_EQ(EASNODE_COUNTED, reading.energy.quality);
    EXPECT_EQ(0U, reading.energy.read_within_ns);
    EXPECT_DOUBLE_EQ(500, reading.energy.value);
    write("echo 7 J");
    EXPECT_THAT(reading_of(meter).energy.reason, HasSubstr("backwards"));
    write("echo 2000 J");
    EXPECT_EQ(EASNODE_MISSING, reading_of(meter).energy.quality) << "one that failed has ended";
}

TEST_F(SiteCommandTest, ThatHangsDiesOrBabblesIsAMissingFigureWithItsReason) {
    const struct {
        const char* body;
        const char* reason;
    } rows[] = {
        {"exec sleep 30", "did not end in time"},
        {"sleep 30 & wait", "did not end in time"},
        {"exec >&-; exec sleep 30", "did not end in time"},
        {"exit 3", "ended with status 3"},
        {"kill -9 $$", "was killed by signal 9"},
        {"echo power supply missing", "says \"power supply missing\""},
        {"while :; do echo 1234567890123456789012345678901234567890; done", "without end"},
        {"echo 0", "says \"0\""},
    };
    for (const auto& row : rows) {
        const size_t before = descriptors();
        timeout_ = 400;
        OwnedMeter meter = meter_of("echo 200");
        write(row.body);
        const auto begin = std::chrono::steady_clock::now();
        const easnode_reading reading = reading_of(meter);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s) << row.body;
        EXPECT_EQ(EASNODE_MISSING, reading.energy.quality);
        EXPECT_EQ(0, reading.energy.value);
        EXPECT_THAT(reading.energy.reason, HasSubstr(row.reason));
        EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG)) << "a child is left of " << row.body;
        meter.reset();
        EXPECT_EQ(before, descriptors());
    }
}

TEST_F(SiteCommandTest, HasTwoSecondsWhereNobodySaysMore) {
    timeout_ = 0;
    OwnedMeter meter = meter_of("echo 200");
    write("exec sleep 30");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(EASNODE_MISSING, reading_of(meter).energy.quality);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(took > 1990ms && took < 20s);
}

TEST_F(SiteCommandTest, SeesNothingOfTheProgramThatAsks) {
    const UniqueFd inherited(::dup2(STDIN_FILENO, 77));  // without O_CLOEXEC
    ::setenv("SECRET", "x", 1);
    sigset_t none{}, held{};
    ::sigaddset(&held, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &held, &none);
    ::signal(SIGPIPE, SIG_IGN);
    OwnedMeter meter = meter_of(
        "[ -z \"$SECRET\" ] && [ ! -e /proc/$$/fd/77 ] && "
        "[ \"$LC_ALL $PATH\" = 'C /usr/sbin:/usr/bin:/sbin:/bin' ] && "
        "[ \"$(readlink /proc/$$/fd/0 /proc/$$/fd/2 | uniq)\" = /dev/null ] && "
        "[ $(grep -c 'Sig\\(Blk\\|Ign\\):.*0000000$' /proc/self/status) = 2 ] && echo 5",
        EASNODE_COMMAND_JOULES);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    const easnode_reading reading = reading_of(meter);
    EXPECT_EQ(EASNODE_COUNTED, reading.energy.quality) << reading.energy.reason;
}

}  // namespace
}  // namespace eas::node
