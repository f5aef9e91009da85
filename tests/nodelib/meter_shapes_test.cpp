// The meter on nodes of today's shapes: what it finds there, and how it follows CPUs and wraps.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <memory>
#include <sstream>

#include "base/UniqueFd.h"
#include "tests/node/NodeTest.h"
#include "tests/node/SmallNode.h"
#include "tests/nodelib/Metered.h"

namespace eas::test {
namespace {

using ::testing::HasSubstr;

class MeterShapes : public NodeTest {};

/// A quarter of the cores of a node of 2 x 56 of two threads each.
void set_quarter_online(const char* text) {
    for (int core = 1; core <= 28; ++core)
        for (const int cpu : {core, core + 112})
            put("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/online", text);
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

/// Whether the source finds so many bytes an instruction; only the first of two sockets has CPUs
/// that speak for boxes.
void expect_traffic(const NodeShape& shape, const char* source, double bytes = 0.32,
                    double within = 0.1) {
    FakeNode node(shape);
    inside(node, [&] {
        easnode_meter_options options{};
        options.memory_sources = source;
        options.energy_sources = "none";
        Metered meter(options);
        const auto holds = [=](const Metered::Rates& got) {
            return near(bytes, got.bytes / got.instructions, within);
        };
        const std::chrono::milliseconds pause(static_cast<int>(6 / within));
        EXPECT_TRUE(holds(meter.rates_of_which(holds, pause)))
            << meter.fate(EASNODE_MEMORY, source);
    });
}

// The codes of their manuals: reads, then writes.
TEST_F(MeterShapes, EveryGenerationsControllersAreCountedByTheirCodes) {
    NodeShape bare = small_node("xeon2023"), named, fabric = small_node("epyc2023");
    bare.counts.clear();
    const auto counted_by = [&bare](int model, const std::vector<uint64_t>& codes) {
        NodeShape shape = bare;
        shape.model = model;
        // Of two schedulers one sees more: counted twice, either makes another sum.
        for (size_t i = 0; i < codes.size(); ++i)
            shape.counts.push_back({"uncore_imc_*", codes[i],
                                    2 * i < codes.size() ? "reads" : "writes",
                                    codes.size() == 2 ? 1.0
                                    : i % 2 == 0      ? 0.2
                                                      : 0.8});
        return shape;
    };
    const std::pair<std::vector<int>, std::vector<uint64_t>> rows[] = {
        {{45, 62, 63, 79, 86, 85}, {0x0304, 0x0c04}},
        {{106, 108, 134}, {0x0f04, 0x3004}},
        {{143, 207}, {0xcf05, 0xf005}},
        {{173, 174, 175}, {0xcf05, 0xcf06, 0xf005, 0xf006}}};
    for (const auto& [models, codes] : rows)
        for (const int model : models) {
            SCOPED_TRACE(model);
            expect_traffic(counted_by(model, codes), "imc");
        }
    const std::string events = "/sys/bus/event_source/devices/uncore_imc_";
    const std::vector<std::string> names[] = {{"data_reads", "data_writes"},
                                              {"cas_count_read", "cas_count_write"},
                                              {"cas_count_read_sch0", "cas_count_read_sch1",
                                               "cas_count_write_sch0", "cas_count_write_sch1"}};
    for (const auto& list : names) {
        SCOPED_TRACE(list[0]);
        const std::vector<uint64_t>& codes = rows[list.size() == 2 ? 2 : 3].second;
        named = counted_by(142, codes);  // of a client
        for (size_t i = 0; i < 8 * list.size(); ++i) {
            const size_t number = i % list.size(), code = codes[number];
            const std::string box = events + std::to_string(i / list.size()) + "/events/";
            test::put(
                named, box + list[number],
                "event=" + std::to_string(code & 0xff) + ",umask=" + std::to_string(code >> 8));
            test::put(named, box + list[number] + ".unit", "MiB");
            test::put(named, box + list[number] + ".scale", "6.103515625e-5");
        }
        expect_traffic(named, "imc", 0.32, list[0] == "data_reads" ? 0.02 : 0.1);
    }
    test::put(named, "/sys/devices/system/cpu/cpu0/cache/index0/coherency_line_size", "128");
    expect_traffic(named, "misses", 2 * 0.6 * 1.28);  // each of two events sees 0.6 of all

    const std::string device = "/sys/bus/event_source/devices/amd_df/";
    for (const auto& [file, text] : {std::pair("type", "90"), std::pair("cpumask", "0,2"),
                                     std::pair("format/event", "config:0-7,32-37"),
                                     std::pair("format/umask", "config:8-15,24-27")})
        test::put(fabric, device + file, text);
    for (uint64_t event = 0x1f; event < 0x1f + 12 * 0x40; event += 0x40)
        for (const uint64_t mask : {0xffeU, 0xfffU})
            fabric.counts.push_back(
                {"amd_df", (event & 0xff) | event >> 8 << 32 | (mask & 0xff) << 8 | mask >> 8 << 24,
                 mask == 0xffe ? "reads" : "writes", 1.0 / 12});
    expect_traffic(fabric, "df", 0.768);
}

TEST_F(MeterShapes, ArmsControllersCountWhereTheySayTheirUnit) {
    NodeShape shape = fake::read_shape("arm-module");
    for (const std::string controller : {"hisi_sccl1_ddrc0", "hisi_sccl2_ddrc0"})
        for (const std::string event : {"flux_rd", "flux_wr"})
            for (const auto& [file, text] :
                 {std::pair(".scale", "6.103515625e-5"), {".unit", "MiB"}})
                test::put(shape,
                          "/sys/bus/event_source/devices/" + controller + "/events/" + event + file,
                          text);
    test::put(shape, "/sys/class/hwmon/hwmon2/power1_average_interval", "3000");
    test::put(shape, "/proc/cpuinfo",
              "processor\t: 0\nCPU implementer\t: 0x41\nCPU part\t: 0xd4f\n\n"
              "processor\t: 1\nCPU implementer\t: 0x41\nCPU part\t: 0xd05\n");
    FakeNode node(shape);
    inside(node, [] {
        Metered meter;
        const auto holds = [](const Metered::Rates& got) {
            return near(0.64, got.bytes / got.instructions, 0.08);
        };
        EXPECT_TRUE(holds(meter.rates_of_which(holds))) << meter.next().memory.reason;
        EXPECT_EQ(3000000000U, meter.next().energy.read_within_ns) << "of the slowest meter";
        easnode_topology topology{};
        topology.size = sizeof topology;
        EXPECT_EQ(EASNODE_OK, easnode_topology_read(&topology));
        EXPECT_STREQ("implementer 0x41, part 0xd4f", topology.processor);
    });
}

/// A figure in words; what is integrated depends on the time.
std::string in_words(const easnode_figure& figure) {
    if (figure.quality == EASNODE_MISSING)
        return "missing: " + std::string(figure.reason);
    const bool timed = figure.quality == EASNODE_INTEGRATED;
    std::ostringstream text;
    text << std::setprecision(15) << "quality " << figure.quality << ", extent " << figure.extent
         << ", value " << (timed ? figure.value > 0 : figure.value) << ", within "
         << static_cast<double>(figure.read_within_ns) / 1e9 << " s: "
         << std::string(figure.covers).substr(0, std::string(figure.covers).find(" from "));
    return text.str();
}

TEST_F(MeterShapes, SourcesSayWhatTheirTranscriptShows) {
    struct List {
        const char* name;
        int figure;
        easnode_figure easnode_reading::*read;
        const char* easnode_meter_options::*sources;
    };
    static const List lists[] = {
        {"energy", EASNODE_ENERGY, &easnode_reading::energy,
         &easnode_meter_options::energy_sources},
        {"memory", EASNODE_MEMORY, &easnode_reading::memory,
         &easnode_meter_options::memory_sources},
        {"cores", EASNODE_CYCLES, &easnode_reading::cycles, &easnode_meter_options::core_sources}};
    const List* list = lists;
    std::unique_ptr<Metered> meter;
    size_t told = 0;  // of the events that were opened
    replay(EAS_METERS, [&](FakeNode& node, const std::string& line) {
        std::istringstream words(line);
        std::string verb, name, sources;
        std::ostringstream said;
        int milliseconds = 0;
        words >> verb;
        if (verb == "end") {
            meter.reset();
        } else if (verb == "read") {
            words >> milliseconds;
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            said << in_words(meter->next().*list->read);
        } else if (verb == "opened") {
            const auto& events = node.state().counters;
            for (told = told < events.count ? told : 0; told < events.count; ++told)
                said << ' ' << std::hex << events.rows[told].cpu << '/'
                     << events.rows[told].attr.config;
        } else {
            words >> name >> sources;
            list =
                std::find_if(lists, lists + 2, [&](const List& one) { return name == one.name; });
            easnode_meter_options options = of_energy("none");
            options.*list->sources = sources.c_str();
            meter = std::make_unique<Metered>(options);
            std::replace(sources.begin(), sources.end(), ',', ' ');
            for (words = std::istringstream(sources); words >> name;) {
                const std::string fate = meter->fate(list->figure, name);
                said << name << ' ' << fate.substr(0, fate.find(" from 2 samples")) << "; ";
            }
        }
        return said.str() + '.';
    });
}

// By a plain event the kernel counts a process on the large cores only.
TEST_F(MeterShapes, AProcessIsFollowedOverAllKindsOfCores) {
    FakeNode node(fake::read_shape("hybrid"));
    inside(node, [] {
        easnode_meter_options options{};
        options.process = ::getpid();
        Metered process(options), all;
        const double everything = all.rates().instructions;  // whose work is all that there is
        const Metered::Rates rates =
            process.rates_of_which([everything](const Metered::Rates& got) {
                return near(everything, got.instructions, 0.05);
            });
        EXPECT_NEAR(1, rates.instructions / everything, 0.1);
        EXPECT_EQ(EASNODE_PROCESS, rates.now.instructions.extent);
        EXPECT_EQ(EASNODE_COUNTED, rates.now.instructions.quality) << rates.now.cycles.reason;
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

TEST_F(MeterShapes, ManyCpusNeedDescriptorsAndTheReasonSaysSo) {
    FakeNode node(fake::read_shape("xeon2023"));
    inside(node, [] {
        rlimit limit{};
        const auto next_number = [] { return UniqueFd(::open("/", O_RDONLY | O_CLOEXEC)).get(); };
        const int first = next_number();
        for (const rlim_t soft : {300U, 2303U, 2304U}) {  // four times 2 x 224 + 128
            limit = {soft, 4000};
            ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
            Metered within;
            EXPECT_EQ(EASNODE_COUNTED, within.next().cycles.quality) << within.next().cycles.reason;
            ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
            EXPECT_EQ(soft, limit.rlim_cur);
            const int used = next_number() - first;  // of the program's numbers
            EXPECT_TRUE(soft < 2304U ? used >= 0 && used < 4 : used > 448) << soft << ": " << used;
        }
        limit = {300, 300};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
        Metered without;
        EXPECT_THAT(without.next().cycles.reason, HasSubstr("RLIMIT_NOFILE"));
        EXPECT_EQ(EASNODE_COUNTED, without.next().memory.quality) << "they need fewer";
    });
}

}  // namespace
}  // namespace eas::test
