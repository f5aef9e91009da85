#include "node/meter/SourceTable.h"

#include "node/files/PseudoFile.h"

namespace eas::node {
namespace {

constexpr SourceRow source_rows[] = {
    // Perf events of the cores.
    {SourceList::core, "perf", Default::always, open_core_events},

    // The controllers themselves count every byte, that of devices, too.
    {SourceList::memory, "imc", Default::always, open_intel_controllers},
    {SourceList::memory, "umc", Default::always, open_amd_controllers},
    {SourceList::memory, "arm", Default::always, open_arm_memory},
    // A sample of the same.
    {SourceList::memory, "df", Default::always, open_data_fabric},
    // What the cores ask for.
    {SourceList::memory, "resctrl", Default::always, open_resctrl},
    // The controllers again, set up by ourselves: only where nobody else counts them.
    {SourceList::memory, "registers", Default::always, open_registers},
    // Something else, which goes along with it.
    {SourceList::memory, "misses", Default::with_estimates, open_cache_misses},

    // Whoever gives a command means it.
    {SourceList::energy, "command", Default::with_command, open_site_command},
    // Counters of the whole node, then its power, which has to be integrated.
    {SourceList::energy, "pm_counters", Default::always, open_node_counter},
    {SourceList::energy, "qpx", Default::always, open_platform_meter},
    {SourceList::energy, "hwmon", Default::always, open_power_meter},
    // The processors' counters; those that nobody has to read in time first.
    {SourceList::energy, "rapl-perf", Default::always, open_rapl_pmu},
    {SourceList::energy, "powercap", Default::always, open_powercap},
    // What it covers is anybody's guess.
    {SourceList::energy, "psys", Default::never, open_psys},
};

bool is_default(const SourceRow& row, bool estimates, bool command) {
    switch (row.by_default) {
        case Default::always:
            return true;
        case Default::with_estimates:
            return estimates;
        case Default::with_command:
            return command;
        case Default::never:
            break;
    }
    return false;
}

const SourceRow* find_source(SourceList list, std::string_view name) {
    for (const SourceRow& row : source_rows)
        if (row.list == list && name == row.name)
            return &row;
    return nullptr;
}

}  // namespace

std::vector<const SourceRow*> sources_of(SourceList list) {
    std::vector<const SourceRow*> rows;
    for (const SourceRow& row : source_rows)
        if (row.list == list)
            rows.push_back(&row);
    return rows;
}

std::optional<std::vector<const SourceRow*>> parse_sources(SourceList list, const char* names,
                                                           bool estimates, bool command) {
    std::vector<const SourceRow*> rows;
    if (names == nullptr) {
        for (const SourceRow* row : sources_of(list))
            if (is_default(*row, estimates, command))
                rows.push_back(row);
        return rows;
    }
    std::string_view rest = names;
    if (trimmed(rest) == "none")
        return rows;
    for (;;) {
        const std::size_t comma = rest.find(',');
        const SourceRow* const row = find_source(list, trimmed(rest.substr(0, comma)));
        if (row == nullptr)
            return std::nullopt;
        rows.push_back(row);
        if (comma == std::string_view::npos)
            return rows;
        rest.remove_prefix(comma + 1);
    }
}

}  // namespace eas::node
