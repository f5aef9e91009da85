// The meter on nodes of today's shapes: what it finds there, and what becomes of a figure whose
// source fails, wraps, goes away, or is taken by others.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "node/node.h"
#include "tests/node/NodeTest.h"
#include "tests/node/SmallNode.h"

namespace eas::test {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

class MeterShapes : public NodeTest {};

/// Whether `value` is off by no more than that share.
bool near(double wanted, double value, double share) {
    return std::abs(value - wanted) <= share * std::abs(wanted);
}

/// A meter whose readings are compared with the one before.
class Metered {
  public:
    explicit Metered(easnode_meter_options options = {}) {
        options.size = sizeof options;
        EXPECT_EQ(EASNODE_OK, easnode_meter_open(&options, &meter_));
        last_ = next();
    }
    ~Metered() { easnode_meter_close(meter_); }
    Metered(const Metered&) = delete;
    Metered& operator=(const Metered&) = delete;

    easnode_reading next() {
        easnode_reading reading{};
        reading.size = sizeof reading;
        EXPECT_EQ(EASNODE_OK, easnode_meter_read(meter_, &reading));
        return reading;
    }

    /// Units per second between this call and the one before, which is some time ago.
    struct Rates {
        double cycles, instructions, bytes, watts;
        easnode_reading now;
    };
    Rates rates(std::chrono::milliseconds pause = 300ms) {
        std::this_thread::sleep_for(pause);
        const easnode_reading now = next();
        const double seconds = static_cast<double>(now.time_ns - last_.time_ns) / 1e9;
        const auto rate = [&](easnode_figure easnode_reading::*figure) {
            return ((now.*figure).value - (last_.*figure).value) / seconds;
        };
        const Rates result{rate(&easnode_reading::cycles), rate(&easnode_reading::instructions),
                           rate(&easnode_reading::memory), rate(&easnode_reading::energy), now};
        last_ = now;
        return result;
    }

    /// Rates of which that holds. The work goes on while a reading is taken, so a busy machine
    /// bends them: they are taken again before they count as wrong.
    template <typename Holds>
    Rates rates_of_which(Holds holds, std::chrono::milliseconds pause = 300ms) {
        Rates result = rates(pause);
        for (int tries = 1; tries < 25 && !holds(result); ++tries)
            result = rates(pause);
        return result;
    }

    /// What became of a source, as "refused: reason".
    std::string fate(int figure, const std::string& name) {
        const char* const states[] = {"serves", "refused", "not tried", "not wanted"};
        easnode_source source{};
        source.size = sizeof source;
        for (size_t i = 0; easnode_meter_source(meter_, figure, i, &source) == EASNODE_OK; ++i)
            if (name == source.name)
                return states[source.state] + (": " + std::string(source.text));
        return "unknown";
    }

    easnode_meter* get() { return meter_; }

  private:
    easnode_meter* meter_ = nullptr;
    easnode_reading last_{};
};

/// Makes a file say something else, whoever may write it.
void put(const std::string& path, const std::string& text) {
    std::filesystem::permissions(path, std::filesystem::perms(0644));
    std::ofstream(path) << text << std::flush;
}

/// A quarter of the cores of a node of 2 x 56 of two threads each.
void set_quarter_online(const char* text) {
    for (int core = 1; core <= 28; ++core)
        for (const int cpu : {core, core + 112})
            put("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/online", text);
}

easnode_meter_options of_energy(const char* sources) {
    easnode_meter_options options{};
    options.core_sources = options.memory_sources = "none";
    options.energy_sources = sources;
    return options;
}

easnode_meter_options of_memory(const char* sources) {
    easnode_meter_options options{};
    options.core_sources = options.energy_sources = "none";
    options.memory_sources = sources;
    return options;
}

// Expected values from the shapes' own tables of pace and power.
TEST_F(MeterShapes, FindTheBestSourceAndTheRightFigures) {
    const struct {
        const char* shape;
        double cycles_per_instruction;  // 0: differs from core to core
        const char* memory;             // source; empty: none
        int memory_quality;
        double bytes_per_instruction;
        const char* energy;
        int extent;
        double watts;
    } rows[] = {
        {"xeon2023", 1.20, "imc", EASNODE_COUNTED, 0.64, "rapl-perf", EASNODE_PACKAGES_AND_MEMORY,
         1300},
        {"epyc2023", 1.00, "umc", EASNODE_COUNTED, 0.768, "rapl-perf", EASNODE_PACKAGES, 820},
        {"epyc2019", 1.02, "df", EASNODE_SCALED, 0.96, "powercap", EASNODE_PACKAGES, 430},
        {"hybrid", 0, "imc", EASNODE_COUNTED, 0.512, "rapl-perf", EASNODE_PACKAGES, 0},
        {"meter-only", 0, "", EASNODE_MISSING, 0, "hwmon", EASNODE_NODE, 0},
        {"pm-counters", 1.02, "df", EASNODE_SCALED, 0.96, "pm_counters", EASNODE_NODE, 0},
        {"arm-module", 0.80, "", EASNODE_MISSING, 0, "hwmon", EASNODE_MODULES, 700},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.shape);
        FakeNode node(fake::read_shape(row.shape));
        inside(node, [&row] {
            Metered meter;
            const Metered::Rates rates = meter.rates_of_which(
                [&row](const Metered::Rates& got) {
                    return (row.cycles_per_instruction <= 0 ||
                            near(row.cycles_per_instruction, got.cycles / got.instructions,
                                 0.015)) &&
                           near(row.bytes_per_instruction, got.bytes / got.instructions, 0.08) &&
                           (row.watts <= 0 || near(row.watts, got.watts, 0.05));
                },
                500ms);
            const easnode_reading& now = rates.now;
            EXPECT_EQ(EASNODE_COUNTED, now.cycles.quality) << now.cycles.reason;
            EXPECT_EQ(EASNODE_NODE, now.instructions.extent);
            if (row.cycles_per_instruction > 0) {
                EXPECT_NEAR(row.cycles_per_instruction, rates.cycles / rates.instructions, 0.02);
            }
            EXPECT_STREQ(row.memory, now.memory.source);
            EXPECT_EQ(row.memory_quality, now.memory.quality) << now.memory.reason;
            EXPECT_NEAR(row.bytes_per_instruction, rates.bytes / rates.instructions,
                        0.08 * row.bytes_per_instruction);
            EXPECT_STREQ(row.energy, now.energy.source);
            EXPECT_EQ(row.extent, now.energy.extent) << now.energy.reason;
            EXPECT_NEAR(row.watts > 0 ? row.watts : rates.watts, rates.watts, 0.05 * row.watts);
            EXPECT_GT(rates.watts, 50);
        });
    }
}

TEST_F(MeterShapes, ArmsControllersCountWhereTheySayTheirUnit) {
    NodeShape shape = fake::read_shape("arm-module");
    FakeNode silent(shape);
    inside(silent, [] {
        EXPECT_THAT(Metered().fate(EASNODE_MEMORY, "arm"),
                    HasSubstr("does not say how many bytes"));
    });
    for (const std::string controller : {"hisi_sccl1_ddrc0", "hisi_sccl2_ddrc0"})
        for (const std::string event : {"flux_rd", "flux_wr"})
            for (const auto& [file, text] :
                 {std::pair(".scale", "6.103515625e-5"), {".unit", "MiB"}})
                test::put(shape,
                          "/sys/bus/event_source/devices/" + controller + "/events/" + event + file,
                          text);
    FakeNode node(shape);
    inside(node, [] {
        Metered meter;
        const auto holds = [](const Metered::Rates& got) {
            return near(0.64, got.bytes / got.instructions, 0.08);
        };
        EXPECT_TRUE(holds(meter.rates_of_which(holds))) << meter.next().memory.reason;
        easnode_topology topology{};
        topology.size = sizeof topology;
        EXPECT_EQ(EASNODE_OK, easnode_topology_read(&topology));
        EXPECT_STREQ("implementer 0x41, part 0xd4f", topology.processor);
    });
}

TEST_F(MeterShapes, WhereAllIsDeniedEveryFigureSaysSo) {
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

TEST_F(MeterShapes, PowercapAddsEachPackageOnceAndFoldsWraps) {
    const struct {
        const char* shape;
        const char* source;
        double watts;
    } rows[] = {
        {"xeon2023", "powercap", 1300},  // wraps within a second, and the memory's too
        {"epyc2019", "powercap", 430},   // twelve zones of two packages, one of them number a
        {"hybrid", "psys", 253},         // 1.5 of the whole
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.shape);
        FakeNode node(fake::read_shape(row.shape));
        inside(node, [&row] {
            Metered meter(of_energy(row.source));
            for (int i = 0; i < 4; ++i) {
                const Metered::Rates rates = meter.rates_of_which(
                    [&row](const Metered::Rates& got) { return near(row.watts, got.watts, 0.05); });
                EXPECT_EQ(EASNODE_COUNTED, rates.now.energy.quality) << rates.now.energy.reason;
                EXPECT_GT(rates.now.energy.read_within_ns, 60'000'000'000U);
                EXPECT_LT(rates.watts, 1500);
                EXPECT_NEAR(row.watts, rates.watts, 0.05 * row.watts);
            }
        });
    }
}

TEST_F(MeterShapes, APlatformBelowItsPackagesIsNoPlatform) {
    fake::NodeShape shape = fake::read_shape("hybrid");
    shape.shares["psys"] = 0.5;
    FakeNode node(shape);
    inside(node, [] {
        Metered meter(of_energy("psys"));
        std::this_thread::sleep_for(2100ms);  // by then the counters have settled
        EXPECT_THAT(meter.next().energy.reason, HasSubstr("psys moves less than the packages"));
    });
}

TEST_F(MeterShapes, ASourceThatFailsEndsItsFigureWithTheReason) {
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

TEST_F(MeterShapes, ResctrlEndsWhenGroupsComeOrGo) {
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

TEST_F(MeterShapes, OneMeterAtATimeProgramsTheMemoryCounters) {
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

TEST_F(MeterShapes, CpusMayGoAndComeBack) {
    FakeNode node(fake::read_shape("xeon2023"));
    inside(node, [] {
        Metered meter;
        // One thread of each of 112 cores works, at 3.8 GHz and 1.20 cycles an instruction.
        const auto with_share = [&meter](double share) {
            const double wanted = share * 112 * 3.8e9 / 1.20;
            const auto holds = [wanted](const Metered::Rates& got) {
                return near(wanted, got.instructions, 0.08);
            };
            const Metered::Rates got = meter.rates_of_which(holds, 600ms);
            EXPECT_TRUE(holds(got)) << share << ": " << got.instructions << ", not " << wanted;
            EXPECT_EQ(EASNODE_COUNTED, got.now.cycles.quality) << got.now.cycles.reason;
            return got.now.cycles.value;
        };
        const double before = with_share(1);
        set_quarter_online("0");
        const double without = with_share(0.75);
        EXPECT_GT(without, before) << "what is counted stays";
        set_quarter_online("1");
        EXPECT_GT(with_share(1), without);
        // The CPU that speaks for the second socket's controllers.
        const std::string speaker = "/sys/devices/system/cpu/cpu56/online";
        put(speaker, "0");
        const Metered::Rates moved = meter.rates_of_which([](const Metered::Rates& got) {
            return near(0.64, got.bytes / got.instructions, 0.07);
        });
        EXPECT_EQ(EASNODE_COUNTED, moved.now.memory.quality) << moved.now.memory.reason;
        EXPECT_NEAR(0.64, moved.bytes / moved.instructions, 0.05);
        put(speaker, "1");
    });
}

TEST_F(MeterShapes, CountersThatOthersUseAreScaledOrWaitedFor) {
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

TEST_F(MeterShapes, AReadingTakesOneSystemCallPerCpuAndBox) {
    FakeNode node(fake::read_shape("xeon2023"));
    inside(node, [] {
        easnode_meter* meter = nullptr;
        easnode_reading reading{};
        reading.size = sizeof reading;
        const std::vector<long> calls =
            system_calls_of([&] { easnode_meter_open(nullptr, &meter); },
                            [&] { easnode_meter_read(meter, &reading); });
        EXPECT_EQ(224 + 8 * 2 + 2, std::count(calls.begin(), calls.end(), SYS_read));
        EXPECT_EQ(1, std::count(calls.begin(), calls.end(), SYS_pread64)) << "the CPUs online";
        EXPECT_EQ(224U + 8 * 2 + 2 + 1, calls.size());
    });
}

TEST_F(MeterShapes, AnyEventThatIsRefusedIsAReasonAndNeverASmallerFigure) {
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

TEST_F(MeterShapes, ManyCpusNeedDescriptorsAndTheReasonSaysSo) {
    FakeNode node(fake::read_shape("xeon2023"));
    inside(node, [] {
        rlimit limit{300, 2000};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
        Metered within;
        EXPECT_EQ(EASNODE_COUNTED, within.next().cycles.quality) << within.next().cycles.reason;
        ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_EQ(300U, limit.rlim_cur);
        limit.rlim_max = 300;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
        Metered without;
        EXPECT_THAT(without.next().cycles.reason, HasSubstr("RLIMIT_NOFILE"));
        EXPECT_EQ(EASNODE_COUNTED, without.next().memory.quality) << "they need fewer";
    });
}

}  // namespace
}  // namespace eas::test
