// What the meter makes of the kernel's texts and numbers, apart from where they come from.
#include <gmock/gmock.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/Numbers.h"
#include "node/files/CpuList.h"
#include "node/files/KeptFile.h"
#include "node/files/PseudoFile.h"
#include "node/meter/Integrator.h"
#include "node/meter/NodeCounters.h"
#include "node/meter/PerfGroup.h"
#include "node/meter/PmuDevice.h"
#include "node/meter/Powercap.h"
#include "node/meter/Resctrl.h"
#include "node/meter/SiteCommand.h"
#include "node/meter/SourceTable.h"
#include "tests/support/ScratchFolder.h"

namespace eas::node {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

template <typename Value>
std::string shown(const std::optional<Value>& value) {
    std::ostringstream text;
    if (value)
        text << std::setprecision(12) << *value;
    return value ? text.str() : "none";
}
std::string yes(bool holds) {
    return holds ? "yes" : "none";
}
std::string placed(const std::string& text) {
    const auto bits = parse_term_bits(std::string_view(text).substr(text.find(' ') + 1));
    const auto config = bits ? place_bits(std::stoull(text, nullptr, 0), *bits) : std::nullopt;
    std::ostringstream hex;
    hex << "0x" << std::hex << config.value_or(0);
    return config ? hex.str() : "none";
}

const std::map<std::string, std::function<std::string(const std::string&)>> functions = {
    {"cpus",
     [](const std::string& text) {
         const auto cpus = parse_cpu_list(text);
         return cpus ? cpu_list_text(*cpus) : std::string("none");
     }},
    {"number", [](const std::string& text) { return shown(parse_number(text)); }},
    {"words", [](const std::string& text) { return ::testing::PrintToString(words_of(text)); }},
    {"quoted", [](const std::string& text) { return node::quoted(text); }},
    {"bits", placed},
    {"terms",
     [](const std::string& text) {
         return ::testing::PrintToString(parse_terms(text).value_or(Terms()));
     }},
    {"family", [](const std::string& text) { return yes(is_of_family(text, "uncore_imc")); }},
    {"package", [](const std::string& text) { return shown(package_of(text)); }},
    {"watts", [](const std::string& text) { return shown(parse_command_output(text, false)); }},
    {"joules", [](const std::string& text) { return shown(parse_command_output(text, true)); }},
    {"counter", [](const std::string& text) { return shown(parse_joules(text)); }},
    // "LIST FLAGS NAMES": e with estimates, c with a command; no names are the default ones.
    {"sources",
     [](const std::string& text) {
         const auto list = text[0] == 'm' ? SourceList::memory : SourceList::energy;
         const size_t names = text.find(' ', text.find(' ') + 1);
         const auto has = [&](char flag) { return text.substr(0, names).find(flag, 6) < names; };
         const auto rows = parse_sources(
             list, names < text.size() ? text.c_str() + names + 1 : nullptr, has('e'), has('c'));
         std::string joined = rows ? "" : "none";
         for (const SourceRow* row : rows.value_or(std::vector<const SourceRow*>()))
             joined += row->name + std::string(" ");
         return joined;
     }},
    {"mounted", [](const std::string& text) { return yes(is_mounted(text)); }},
};

TEST(NodeTexts, AreReadWholeOrNotAtAll) {
    std::ifstream file(EAS_NODE_TEXTS);
    int count = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] != '[')
            continue;
        const auto row = nlohmann::json::parse(line).get<std::array<std::string, 3>>();
        EXPECT_EQ(row[2], functions.at(row[0])(row[1])) << line;
        ++count;
    }
    EXPECT_LT(100, count);
}

TEST(KernelFiles, AreReadWholeInOrderAndUpToAnEnd) {
    const test::ScratchFolder folder;
    const std::string page(4000, 'x'), path = folder.path("pages");
    test::write_file(path, page + "\n" + page + std::string("y\n\0\n\0", 5));
    EXPECT_EQ(page + "\n" + page + "y", read_text(path).text) << "without the padding";
    const FileText endless = read_text("/dev/zero");
    EXPECT_EQ(std::pair(EFBIG, std::string()), std::pair(endless.error, endless.text));
    EXPECT_EQ(ENOENT, write_text(folder.path("none"), "1")) << "attributes are not made";
    for (const char* name : {"q", "w", "e", ".r", "t", "z", "b", "a"})
        test::write_file(folder.path() / "names" / name, "");
    int error = EIO;
    EXPECT_THAT(names_in(folder.path("names"), &error),
                ElementsAre("a", "b", "e", "q", "t", "w", "z"));
    EXPECT_EQ(0, error);
    EXPECT_THAT(names_in(folder.path("none"), &error), IsEmpty());
    EXPECT_EQ(ENOENT, error);
    KeptFile kept(folder.path("names/a"));
    for (const auto& [text, said] : {std::pair(std::string("9kg"), " says \"9kg\""),
                                     {std::string(8192, '9'), ": File too large"}}) {
        test::write_file(kept.path(), text);
        EXPECT_FALSE(kept.number());
        EXPECT_EQ(kept.path() + said, kept.reason());
    }
}

TEST(PowercapZones, AreAddedUpOnceEach) {
    // Numbers are hexadecimal, the platform lies between packages, a second driver repeats one.
    const std::vector<PowerZone> intel = {
        {"intel-rapl", ""},         {"intel-rapl-mmio:0", "package-0"},
        {"intel-rapl:0", "psys"},   {"intel-rapl:1", "package-0-die-0"},
        {"intel-rapl:1:0", "dram"}, {"intel-rapl:1:1", "core"},
        {"intel-rapl:9", "dram"},   {"intel-rapl:a", "package-0-die-1"},
        {"intel-rapl:a:0", "dram"}, {"intel-rapl-mmio:0:0", "dram"},
        {"dtpm", "package-7"},      {"intel-rapl:b", "package-x"},
    };
    const PowerZones dies_add_up = choose_zones(intel, false);
    EXPECT_THAT(dies_add_up.packages, ElementsAre("intel-rapl:1", "intel-rapl:a"));
    EXPECT_THAT(dies_add_up.memory, ElementsAre("intel-rapl:1:0", "intel-rapl:a:0"));
    EXPECT_EQ("intel-rapl:0", dies_add_up.platform);
    const PowerZones dies_repeat = choose_zones(intel, true);
    EXPECT_THAT(dies_repeat.packages, ElementsAre("intel-rapl:1"));
    EXPECT_THAT(dies_repeat.memory, ElementsAre("intel-rapl:1:0"));
}

TEST(EventReadings, AreScaledByDifferencesAndNeverInvented) {
    using Totals = std::array<uint64_t, most_events>;
    EventReading before{1000, 1000, {50, 70}};
    Totals totals{};
    EXPECT_EQ(Progress::counted, add_difference(before, {2000, 2000, {150, 270}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(100, 200, 0, 0));
    // A quarter of the next period only.
    EXPECT_EQ(Progress::scaled, add_difference(before, {3000, 2250, {160, 290}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(140, 280, 0, 0));
    // Not at all: what comes next stands for both periods.
    EXPECT_EQ(Progress::no_data, add_difference(before, {4000, 2250, {160, 290}}, 2, totals));
    EXPECT_EQ(Progress::scaled, add_difference(before, {5000, 3250, {260, 390}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(340, 480, 0, 0));
    EXPECT_EQ(Progress::stopped, add_difference(before, {5000, 3250, {260, 390}}, 2, totals));
    EXPECT_EQ(Progress::unreadable, add_difference(before, {6000, 4250, {270, 380}}, 2, totals));
    EXPECT_THAT(totals, ElementsAre(340, 480, 0, 0));
}

TEST(PowerIntegral, IsATrapezoidUntilNobodyLooked) {
    constexpr Nanoseconds second = 1'000'000'000;
    Integrator integral;
    integral.start(10 * second, 100);
    EXPECT_TRUE(integral.add(12 * second, 200));
    EXPECT_TRUE(integral.add(13 * second, 200));
    EXPECT_DOUBLE_EQ(500, integral.joules());
    EXPECT_EQ(
        "meter, integrated from 3 samples every 1.5 s; below 30 s it errs by about 1 s of "
        "power",
        integral.words("meter"));
    EXPECT_TRUE(integral.add(40 * second, 200)) << "half a minute since the beginning";
    EXPECT_EQ("meter, integrated from 4 samples every 10.0 s", integral.words("meter"));
    EXPECT_TRUE(integral.add(100 * second, 300)) << "a minute since the last one";
    EXPECT_DOUBLE_EQ(500 + 200 * 27 + 250 * 60, integral.joules());
    EXPECT_FALSE(integral.add(161 * second, 200));
}

}  // namespace
}  // namespace eas::node
