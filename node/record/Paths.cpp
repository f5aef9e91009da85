#include "node/record/Paths.h"

#include <fnmatch.h>

namespace eas::node {

const PathPattern path_patterns[] = {
    // the processor and what the kernel lets others count
    {"/proc/cpuinfo", Keep::no_serials},
    {"/proc/stat", Keep::whole},
    {"/proc/mounts", Keep::resctrl_lines},
    {"/proc/sys/kernel/osrelease", Keep::whole},
    {"/proc/sys/kernel/perf_event_paranoid", Keep::whole},
    {"/proc/sys/kernel/nmi_watchdog", Keep::whole},
    {"/proc/sys/kernel/random/boot_id", Keep::not_at_all},

    // topology
    {"/sys/devices/system/cpu/online", Keep::whole},
    {"/sys/devices/system/cpu/possible", Keep::whole},
    {"/sys/devices/system/cpu/present", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/online", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/topology/physical_package_id", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/topology/core_id", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/topology/die_id", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/topology/cluster_id", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/topology/core_cpus_list", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/topology/thread_siblings_list", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/cache/index*/coherency_line_size", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/cache/index*/level", Keep::whole},
    {"/sys/devices/system/node/online", Keep::whole},
    {"/sys/devices/system/node/node*/cpulist", Keep::whole},

    // frequencies
    {"/sys/devices/system/cpu/cpu*/acpi_cppc/*", Keep::whole},
    {"/sys/devices/system/cpu/cpu*/cpufreq", Keep::whole},  // links
    {"/sys/devices/system/cpu/cpufreq/boost", Keep::whole},
    {"/sys/devices/system/cpu/cpufreq/policy*/*", Keep::whole},
    {"/sys/devices/system/cpu/intel_pstate/*", Keep::whole},
    {"/sys/devices/system/cpu/amd_pstate/*", Keep::whole},

    // counters of the cores, the memory controllers, the fabric
    {"/sys/bus/event_source/devices/*/type", Keep::whole},
    {"/sys/bus/event_source/devices/*/cpumask", Keep::whole},
    {"/sys/bus/event_source/devices/*/cpus", Keep::whole},
    {"/sys/bus/event_source/devices/*/format/*", Keep::whole},
    {"/sys/bus/event_source/devices/*/events/*", Keep::whole},
    {"/sys/fs/resctrl/info/L3_MON/*", Keep::whole},
    {"/sys/fs/resctrl/mon_data/mon_L3_*/mbm_total_bytes", Keep::whole},
    {"/sys/fs/resctrl/*/mon_data/mon_L3_*/mbm_total_bytes", Keep::not_at_all},  // names of jobs

    // energy
    {"/sys/cray/pm_counters/*", Keep::whole},
    {"/sys/devices/platform/qpx.[01]/*", Keep::whole},
    {"/sys/class/powercap/*/name", Keep::whole},
    {"/sys/class/powercap/*/energy_uj", Keep::whole},
    {"/sys/class/powercap/*/max_energy_range_uj", Keep::whole},
    {"/sys/class/hwmon/hwmon*/name", Keep::whole},
    {"/sys/class/hwmon/hwmon*/power*_*", Keep::whole},
    {"/sys/class/hwmon/hwmon*/energy*_*", Keep::whole},
    {"/sys/class/hwmon/hwmon*/device/power*_*", Keep::whole},
    {"/sys/class/hwmon/hwmon*/device/energy*_*", Keep::whole},
    {nullptr, Keep::whole},
};

bool is_listed(const char* path) {
    for (const PathPattern* row = path_patterns; row->pattern != nullptr; ++row)
        if (::fnmatch(row->pattern, path, FNM_PATHNAME) == 0)
            return true;
    return false;
}

}  // namespace eas::node
