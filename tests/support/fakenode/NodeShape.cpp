#include "tests/support/fakenode/NodeShape.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace eas::fake {
namespace {

// Longer than 1024 characters, as on real servers: a reader's line buffer overflows on it.
std::string flags_line() {
    std::string text = "fpu vme de pse tsc msr pae mce cx8 apic sep mtrr pge mca cmov pat pse36";
    for (int i = 0; text.size() < 1200; ++i)
        text += " ht_model_feature" + std::to_string(i);
    return text;
}

int id_at(const std::vector<int>& ids, int index) {
    return ids.empty() ? index : ids.at(static_cast<size_t>(index));
}

void plant_cpus(const NodeShape& shape, TreeEntry& cpus) {
    const std::string all = "0-" + std::to_string(shape.cpus() - 1) + "\n";
    for (const char* name : {"online", "possible", "present"})
        cpus.put(name, all);
    const int cores = shape.sockets * shape.cores;
    for (int cpu = 0; cpu < shape.cpus(); ++cpu) {
        TreeEntry& topology =
            cpus.make("cpu" + std::to_string(cpu) + "/topology", TreeEntry::Kind::folder);
        const auto put = [&](const char* name, int id) {
            topology.put(name, std::to_string(id) + "\n");
        };
        put("physical_package_id", id_at(shape.socket_ids, shape.socket_of(cpu)));
        put("core_id", id_at(shape.core_ids, shape.core_of(cpu)));
        put("die_id", 0);
        std::string siblings = std::to_string(cpu % cores);
        for (int thread = 1; thread < shape.threads; ++thread)
            siblings += "," + std::to_string(cpu % cores + thread * cores);
        topology.put("core_cpus_list", siblings + "\n");
        topology.put("thread_siblings_list", siblings + "\n");
        TreeEntry& cache =
            cpus.make("cpu" + std::to_string(cpu) + "/cache/index3", TreeEntry::Kind::folder);
        cache.put("level", "3\n");
        cache.put("coherency_line_size", "64\n");
    }
}

void plant_policy(const NodeShape& shape, TreeEntry& policy, int cpu) {
    const auto line = [](const auto& value) { return std::to_string(value) + "\n"; };
    std::string list;
    for (const int khz : shape.frequencies)
        list += std::to_string(khz) + " ";
    const bool listed = shape.driver != FreqDriver::no_userspace;
    const std::string highest = line(shape.frequencies.front());
    const std::string lowest = line(shape.frequencies.back());
    constexpr const char* names[] = {"acpi-cpufreq\n", "intel_pstate\n", "intel_cpufreq\n"};
    const std::pair<const char*, std::string> files[] = {
        {"scaling_driver", names[static_cast<int>(shape.driver)]},
        {"scaling_governor", "performance\n"},
        {"scaling_available_governors",
         listed ? "conservative ondemand userspace powersave performance schedutil \n"
                : "performance powersave \n"},
        {"scaling_setspeed", "<unsupported>\n"},
        {"scaling_cur_freq", highest},
        {"scaling_max_freq", highest},
        {"scaling_min_freq", lowest},
        {"cpuinfo_max_freq", highest},
        {"cpuinfo_min_freq", lowest},
        {"related_cpus", line(cpu)},
        {"affected_cpus", line(cpu)},
    };
    for (const auto& [name, text] : files)
        policy.put(name, text, 0644);
    if (listed)
        policy.put("scaling_available_frequencies", list + "\n");
}

/// What the processors have whose registers the library programs itself.
void plant_old_model(const NodeShape& shape, TreeEntry& root) {
    TreeEntry& cpus = *root.find("sys/devices/system/cpu");
    for (int cpu = 0; cpu < shape.cpus(); ++cpu) {
        const std::string number = std::to_string(cpu);
        plant_policy(shape, cpus.make("cpufreq/policy" + number, TreeEntry::Kind::folder), cpu);
        cpus.make("cpu" + number + "/cpufreq", TreeEntry::Kind::link).text =
            "../cpufreq/policy" + number;
    }
    root.put("sys/devices/platform/qpx.1/energy1_input", "1000000\n", 0644);
    root.put("sys/firmware/acpi/tables/MCFG", mcfg_table(shape.mcfg_base));
    root.put("sys/bus/event_source/devices/cpu/type", "4\n");
}

}  // namespace

void plant(const NodeShape& shape, TreeEntry& root) {
    if (shape.cpus() > 0) {
        plant_cpus(shape, root.make("sys/devices/system/cpu", TreeEntry::Kind::folder));
        root.put("proc/cpuinfo", cpuinfo_text(shape), 0644);
    }
    if (shape.old_model)
        plant_old_model(shape, root);
    for (const ShapeFile& file : shape.files) {
        TreeEntry& entry = root.make(file.path, file.kind);
        entry.mode = file.mode;
        entry.text = file.text;
    }
}

std::string cpuinfo_text(const NodeShape& shape) {
    std::ostringstream out;
    const std::string flags = flags_line();
    for (int cpu = 0; cpu < shape.cpus(); ++cpu) {
        out << "processor\t: " << cpu << "\nvendor_id\t: " << shape.vendor
            << "\ncpu family\t: " << shape.family << "\nmodel\t\t: " << shape.model
            << "\nmodel name\t: " << shape.model_name << "\nstepping\t: 7"
            << "\nphysical id\t: " << id_at(shape.socket_ids, shape.socket_of(cpu))
            << "\nsiblings\t: " << shape.cores * shape.threads
            << "\ncore id\t\t: " << id_at(shape.core_ids, shape.core_of(cpu))
            << "\ncpu cores\t: " << shape.cores << "\napicid\t\t: " << cpu
            << "\ncpuid level\t: 13\nflags\t\t: " << flags
            << "\naddress sizes\t: 46 bits physical, 48 bits virtual\npower management:\n\n";
    }
    return out.str();
}

std::string mcfg_table(uint64_t base) {
    std::string table(60, '\0');
    table.replace(0, 4, "MCFG");
    table[4] = 60;
    for (size_t byte = 0; byte < 8; ++byte)
        table[44 + byte] = static_cast<char>(base >> (8 * byte) & 0xff);
    table[55] = '\xff';  // last bus of the allocation
    return table;
}

std::vector<WorkloadRow> read_workload(const std::string& path) {
    std::ifstream in(path);
    std::vector<WorkloadRow> rows;
    WorkloadRow row{};
    while (in >> row.khz >> row.watts >> row.cycles_per_instruction >> row.lines_per_instruction)
        rows.push_back(row);
    if (rows.empty() || !in.eof())
        throw std::runtime_error(path + ": not a workload");
    return rows;
}

}  // namespace eas::fake
