// What becomes of a figure whose source is denied, fails, goes away, or is taken by others.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>

#include "tests/node/NodeTest.h"
#include "tests/nodelib/Metered.h"

namespace eas::test {
namespace {

using ::testing::HasSubstr;

using MeterFaults = NodeTest;

TEST_F(MeterFaults, WhereAllIsDeniedEveryFigureSaysSo) {
    FakeNode node(fake::read_shape("denied"));
    inside(node, [] {
        easnode_meter_options options{};
        options.allow_estimate = 1;
        Metered meter(options);
        const easnode_reading now = meter.next();
        for (const auto& figure : {now.cycles, now.instructions, now.memory, now.energy}) {
            EXPECT_EQ(EASNODE_MISSING, figure.quality);
            EXPECT_EQ(0, figure.value);
            EXPECT_STRNE("", figure.reason);
        }
        EXPECT_THAT(now.cycles.reason, HasSubstr("perf_event_paranoid 0 or lower, which is 4"));
        for (const char* name : {"imc", "resctrl", "misses"})
            EXPECT_THAT(meter.fate(EASNODE_MEMORY, name), HasSubstr("Permission denied")) << name;
        for (const char* name : {"pm_counters", "hwmon", "rapl-perf", "powercap"})
            EXPECT_THAT(meter.fate(EASNODE_ENERGY, name), HasSubstr("Permission denied")) << name;
    });
}

TEST_F(MeterFaults, ASourceThatFailsEndsItsFigureWithTheReason) {
    const std::string zone = "/sys/class/powercap/intel-rapl:0/energy_uj";
    const std::string cray = "/sys/cray/pm_counters/";
    const std::string caches = "/sys/fs/resctrl/batch/mon_data/mon_L3_03/mbm_total_bytes";
    const std::string power = "/sys/class/hwmon/hwmon1/power1_average";
    const struct {
        const char* shape;
        easnode_meter_options options;
        std::string path;
        const char* text;
        const char* reason;
    } rows[] = {
        {"epyc2023", of_energy("powercap"), zone, "!EIO", "Input/output error"},
        {"epyc2023", of_energy("powercap"), zone, "12kg", "says \"12kg\""},
        {"epyc2023", of_energy("powercap"), zone, "-1", "says \"-1\""},
        {"epyc2023", of_energy("powercap"), zone, "99999999999999", "above its range"},
        {"epyc2023", of_memory("resctrl"), caches, "Unavailable", "says \"Unavailable\""},
        {"epyc2023", of_memory("resctrl"), caches, "3", "went backwards"},
        {"pm-counters", of_energy("pm_counters"), cray + "energy", "7 J", "was restarted"},
        {"pm-counters", of_energy("pm_counters"), cray + "startup", "1800000000", "was restarted"},
        {"pm-counters", of_energy("pm_counters"), cray + "energy", "1e9 W", "says \"1e9 W\""},
        {"meter-only", of_energy("hwmon"), power, "0", "says 0 W"},
        {"meter-only", of_energy("hwmon"), power, "!ENODATA", "No data available"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path + " becomes " + row.text);
        FakeNode node(fake::read_shape(row.shape));
        inside(node, [&row] {
            Metered meter(row.options);
            const auto figure = [&row](const easnode_reading& reading) {
                return row.options.energy_sources == std::string("none") ? reading.memory
                                                                         : reading.energy;
            };
            std::this_thread::sleep_for(150ms);
            EXPECT_NE(EASNODE_MISSING, figure(meter.next()).quality) << figure(meter.next()).reason;
            put(row.path, row.text);
            const easnode_figure failed = figure(meter.next());
            EXPECT_EQ(EASNODE_MISSING, failed.quality);
            EXPECT_EQ(0, failed.value);
            EXPECT_THAT(failed.reason, HasSubstr(row.reason));
            EXPECT_STRNE("", failed.source);
            EXPECT_EQ(EASNODE_MISSING, figure(meter.next()).quality) << "no jump later";
        });
    }
}

TEST_F(MeterFaults, ResctrlEndsWhenGroupsComeOrGo) {
    FakeNode node(fake::read_shape("epyc2023"));
    inside(node, [] {
        Metered meter(of_memory("resctrl"));
        const Metered::Rates rates = meter.rates();
        EXPECT_EQ(EASNODE_CORES, rates.now.memory.extent) << rates.now.memory.reason;
        EXPECT_GT(rates.bytes, 1e9);
        Metered later(of_memory("resctrl"));
        const double since = later.next().memory.value;
        EXPECT_LT(since, meter.next().memory.value - 0.5 * rates.now.memory.value)
            << "what was before it was opened counts for nothing";
        std::filesystem::create_directory("/sys/fs/resctrl/another");
        EXPECT_THAT(meter.next().memory.reason, HasSubstr("groups were made or removed"));
    });
}

TEST_F(MeterFaults, OneMeterAtATimeProgramsTheMemoryCounters) {
    NodeShape shape = of_model(44, 1, 2, 1);
    shape.workload = {{1600000, 150, 1.0, 0.01}};
    FakeNode node(shape);
    inside(node, [&node] {
        const auto opened = [](int use) {
            easnode_meter_options options = of_memory("registers");
            options.registers = use;
            return std::make_unique<Metered>(options);
        };
        const auto fate = [&opened](int use) {
            return opened(use)->fate(EASNODE_MEMORY, "registers");
        };
        const auto control = [&node] { return *node.state().find_msr(0, 0x391); };
        // Another program of this kind, at a moment at which the registers do not show it.
        int pipe[2];
        ASSERT_EQ(0, ::pipe(pipe));
        const pid_t other = ::fork();
        if (other == 0) {
            const auto held = opened(EASNODE_REGISTERS_IF_FREE);
            node.state().set_msr(0, 0x391, 0);
            static_cast<void>(::write(pipe[1], "", 1));
            ::pause();
        }
        char byte = 0;
        EXPECT_EQ(1, ::read(pipe[0], &byte, 1));
        EXPECT_THAT(fate(EASNODE_REGISTERS_IF_FREE), HasSubstr("by a meter of another program"));
        ::kill(other, SIGKILL);
        ::waitpid(other, nullptr, 0);
        ::close(pipe[0]);
        ::close(pipe[1]);

        auto meter = opened(EASNODE_REGISTERS_LOOK);
        EXPECT_THAT(meter->next().memory.reason, HasSubstr("looked at only"));
        EXPECT_EQ(0U, control());
        meter = opened(EASNODE_REGISTERS_IF_FREE);
        EXPECT_GT(meter->rates(100ms).bytes, 1e6) << meter->next().memory.reason;
        EXPECT_THAT(fate(EASNODE_REGISTERS_TAKE), HasSubstr("by a meter of this program"));
        node.state().set_msr(0, 0x391, 0);
        EXPECT_THAT(meter->next().memory.reason, HasSubstr("another program has taken"));
        meter.reset();
        node.state().set_msr(0, 0x391, 1);
        EXPECT_THAT(fate(EASNODE_REGISTERS_IF_FREE), HasSubstr("register 0x391 of cpu0 is not 0"));
        EXPECT_THAT(fate(EASNODE_REGISTERS_TAKE), HasSubstr("serves"));
        EXPECT_EQ(0U, control()) << "given back";
    });
}

TEST_F(MeterFaults, CountersThatOthersUseAreScaledOrWaitedFor) {
    FakeNode node(fake::read_shape("epyc2023"));
    inside(node, [&node] {
        node.state().running_percent = 40;
        Metered meter;
        const auto in_step = [](const Metered::Rates& got) {
            return near(1.00, got.cycles / got.instructions, 0.02) &&
                   near(0.768, got.bytes / got.instructions, 0.1);
        };
        Metered::Rates rates = meter.rates_of_which(in_step);
        EXPECT_EQ(EASNODE_SCALED, rates.now.cycles.quality);
        EXPECT_NEAR(1.00, rates.cycles / rates.instructions, 0.02);
        EXPECT_NEAR(0.768, rates.bytes / rates.instructions, 0.08);
        node.state().running_percent = 0;
        meter.next();
        rates = meter.rates();
        EXPECT_EQ(EASNODE_MISSING, rates.now.cycles.quality);
        EXPECT_THAT(rates.now.cycles.reason, HasSubstr("other users had the counters"));
        node.state().running_percent = 100;
        meter.rates();
        rates = meter.rates();
        EXPECT_EQ(EASNODE_SCALED, rates.now.cycles.quality) << "some of what it counted since";
        EXPECT_NEAR(1.00, rates.cycles / rates.instructions, 0.02);
    });
}

TEST_F(MeterFaults, AnyEventThatIsRefusedIsAReasonAndNeverASmallerFigure) {
    FakeNode node(fake::read_shape("meter-only"));
    inside(node, [&node] {
        easnode_meter_options options{};
        options.energy_sources = "none";
        for (const int error : {ENODEV, EIO, EMFILE}) {
            int refused = 0;
            for (int fails_at = 0; fails_at <= 32; fails_at += 3) {
                node.state().counters.clear();
                node.state().counter_fails_at = fails_at;
                node.state().counter_error = error;
                Metered meter(options);
                const easnode_figure cycles = meter.next().cycles;
                EXPECT_EQ(cycles.quality == EASNODE_MISSING, cycles.reason[0] != '\0');
                refused += cycles.quality == EASNODE_MISSING;
            }
            EXPECT_EQ(11, refused) << "each of the sixteen CPUs has two events";
        }
        node.state().counter_fails_at = -1;
    });
}

}  // namespace
}  // namespace eas::test
