// The texts that the node library's meter reads: PMU formats and terms, powercap zones, power
// meters, the output of a site's command, joules, mounts.
#include <cmath>
#include <set>
#include <string_view>

#include "fuzz/Fuzz.h"
#include "node/meter/NodeCounters.h"
#include "node/meter/PmuDevice.h"
#include "node/meter/PowerMeter.h"
#include "node/meter/Powercap.h"
#include "node/meter/Resctrl.h"
#include "node/meter/SiteCommand.h"
#include "node/meter/SourceTable.h"

namespace {

using namespace eas::node;
using eas::fuzz::check;

void try_formats(const std::string& text) {
    if (const auto bits = parse_term_bits(text)) {
        check(!bits->empty(), "a format has bits");
        for (const BitRange& range : *bits)
            check(range.first <= range.last && range.last < 64, "bits lie in their word");
        check(place_bits(0, *bits).value_or(1) == 0, "0 sets no bit");
    }
    if (const auto terms = parse_terms(text))
        for (const auto& term : *terms)
            check(!term.first.empty(), "a term has a name");
}

void try_zones(std::string_view text) {
    std::vector<PowerZone> zones;
    eas::fuzz::for_each_line(text, 256, [&](std::string_view line) {
        const std::size_t blank = std::min(line.find(' '), line.size());
        std::string_view name = line.substr(std::min(blank + 1, line.size()));
        if (!name.empty() && name.back() == '\n')
            name.remove_suffix(1);
        zones.push_back({std::string(line.substr(0, blank)), std::string(name)});
    });
    const PowerZones one = choose_zones(zones, true);
    check(one.packages.size() <= choose_zones(zones, false).packages.size(),
          "one of a package is at most all of them");
    std::set<long long> packages;
    for (const PowerZone& zone : zones)
        if (const auto package = package_of(zone.name))
            packages.insert(*package);
    check(one.packages.size() <= packages.size(), "no package twice");
}

void try_quantities(const std::string& text) {
    const auto watts = parse_command_output(text, false);
    check(!watts || (std::isfinite(*watts) && *watts > 0), "watts are more than 0");
    const auto joules = parse_command_output(text, true);
    check(!joules || (std::isfinite(*joules) && *joules >= 0), "joules are not negative");
    check(!parse_joules(text) || text.find('J') != std::string::npos, "joules have their unit");
    static_cast<void>(is_mounted(text));
    check(choose_meters({{"a", text}, {"b", text}}).folders.size() != 1,
          "like meters, like choice");
    if (const auto order = parse_sources(SourceList::energy, text.c_str(), true, true))
        for (const SourceRow* row : *order)
            check(text.find(row->name) != std::string::npos, "only what was named is tried");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = eas::fuzz::text_of(data, size);
    try_formats(text);
    try_zones(text);
    try_quantities(text);
    return 0;
}
