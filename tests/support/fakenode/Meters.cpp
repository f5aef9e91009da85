#include "tests/support/fakenode/Meters.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

namespace eas::fake {
namespace {

constexpr double node_counter_interval = 0.1;  // s
constexpr double first_sample = 0.01;          // s; a meter has a value from the beginning

std::string line(double value) {
    return std::to_string(static_cast<unsigned long long>(value)) + "\n";
}

/// The number behind the word, as in "package-1-die-0"; 0 if there is none.
int number_after(const std::string& text, const std::string& word) {
    int number = 0;
    const size_t at = text.find(word);
    if (at != text.npos)
        std::sscanf(text.c_str() + at + word.size(), "%d", &number);
    return number;
}

}  // namespace

Meters::Meters(const NodeShape& shape, const Workload& workload, const NodeCpus& cpus,
               TreeEntry& root)
    : shape_(shape), work_(workload) {
    root.attach("proc/mounts", [own = root.value("proc/mounts") + "\n"] {
        std::ifstream mounts("/proc/self/mounts");
        return std::string(std::istreambuf_iterator<char>(mounts), {}) + own;
    });
    if (!workload.active())
        return;
    const char* const meter = "sys/devices/platform/qpx.1/energy1_input";
    root.attach(meter, [this] { return line(work_.all_sockets().joules * 1e6); });
    const char* const zones = "sys/class/powercap";
    root.each(zones, "intel-rapl", [&](const std::string& name, TreeEntry& zone) {
        attach_zone(name, zone, *root.find(zones));
    });
    root.each("sys/class/hwmon", "hwmon",
              [this](const std::string&, TreeEntry& chip) { attach_hwmon(chip); });
    if (TreeEntry* counters = root.find("sys/cray/pm_counters"))
        attach_node_counter(*counters);
    attach_resctrl(root);
    attach_stat(cpus, root);
}

double Meters::share(const std::string& what, double otherwise) const {
    const auto found = shape_.shares.find(what);
    return found != shape_.shares.end() ? found->second : otherwise;
}

/// Joules of a part of the node; socket -1: all of them.
Meters::Joules Meters::joules(double share, int socket) const {
    return [this, share, socket] {
        return share * (socket < 0 ? work_.all_sockets() : work_.of_socket(socket)).joules;
    };
}

Meters::Sampled& Meters::sampled(double interval, Joules joules) {
    sampled_.push_back(std::make_unique<Sampled>());
    sampled_.back()->interval = interval;
    sampled_.back()->joules = std::move(joules);
    return *sampled_.back();
}

void Meters::tick() {
    for (const auto& meter : sampled_) {
        const double passed = work_.seconds() - meter->since;
        if (passed < (meter->count == 0 ? first_sample : meter->interval))
            continue;
        meter->reading = meter->joules();
        meter->watts = (meter->reading - meter->from) / passed;
        meter->from = meter->reading;
        meter->since = work_.seconds();
        ++meter->count;
    }
}

/// Zones go by name. On AMD every die of a package shows the package's counter; dies of others
/// share the package's energy.
void Meters::attach_zone(const std::string& name, TreeEntry& zone, TreeEntry& zones) {
    const std::string what = zone.value("name");
    TreeEntry* const parent = zones.find(name.substr(0, name.rfind(':')));
    const bool package = what.rfind("package-", 0) == 0;
    const std::string owner = package ? what : parent != nullptr ? parent->value("name") : "";
    double part = share(what, 0.5);
    if (package)
        part = share("package", 1);
    if (const size_t die = owner.find("-die-");
        die != owner.npos && shape_.vendor == "GenuineIntel") {
        int dies = 0;
        zones.each("", "intel-rapl:", [&](const std::string&, TreeEntry& other) {
            dies += other.value("name").rfind(owner.substr(0, die) + "-die-", 0) == 0;
        });
        part /= dies;
    }
    const auto joules = this->joules(part, what == "psys" ? -1 : number_after(owner, "package-"));
    const auto start = static_cast<double>(zone.number("energy_uj"));
    const auto range = static_cast<double>(zone.number("max_energy_range_uj", 262143328850));
    zone.attach("energy_uj",
                [=] { return line(std::fmod(start + std::floor(joules() * 1e6), range)); });
}

/// A chip is live if the shape gives it a share; what its OEM text calls a part of a socket has the
/// share of the text's first word.
void Meters::attach_hwmon(TreeEntry& chip) {
    const double whole = share(chip.value("name"), 0);
    for (const std::string power : {"power1", "device/power1"}) {
        if (whole <= 0 || chip.find(power + "_average") == nullptr)
            continue;
        const std::string part = chip.value(power + "_oem_info");
        const double factor = whole * share(part.substr(0, part.find(' ')), 1);
        const int socket = part.empty() ? -1 : number_after(part, "ocket ");
        const auto interval = chip.number(power + "_average_interval", 1000);
        Sampled& meter = sampled(static_cast<double>(interval) / 1e3, joules(factor, socket));
        chip.attach(power + "_average", [&meter] { return line(meter.watts * 1e6); });
    }
}

/// As newer systems have it, with a time behind it, on a page padded with NULs.
void Meters::attach_node_counter(TreeEntry& folder) {
    Sampled& node = sampled(node_counter_interval, joules(share("node", 1), -1));
    const auto start = static_cast<double>(folder.number("energy"));
    folder.attach("energy", [start, &node] {
        std::string text = line(start + node.reading);
        text.back() = ' ';
        text += "J 1700000000000000 us\n";
        text.resize(4096, '\0');
        return text;
    });
}

void Meters::attach_resctrl(TreeEntry& root) {
    const char* const top = "sys/fs/resctrl";
    std::vector<TreeEntry*> groups;
    if (TreeEntry* folder = root.find(top))
        groups.push_back(folder);
    root.each(top, "", [&](const std::string&, TreeEntry& group) {
        if (group.child("mon_data") != nullptr)
            groups.push_back(&group);
    });
    for (TreeEntry* group : groups) {
        const double part = 1.0 / static_cast<double>(groups.size());
        attach_bytes(*group, part);
        group->each("mon_groups", "", [&](const std::string&, TreeEntry& monitored) {
            attach_bytes(monitored, part / 2);  // the group above includes it
        });
    }
}

/// A text that is no number is shown once: "Unavailable".
void Meters::attach_bytes(TreeEntry& group, double share) {
    int domains = 0;
    group.each("mon_data", "mon_L3_", [&domains](const std::string&, TreeEntry&) { ++domains; });
    group.each("mon_data", "mon_L3_", [&](const std::string&, TreeEntry& domain) {
        const std::string text = domain.value("mbm_total_bytes");
        const auto start = static_cast<double>(domain.number("mbm_total_bytes"));
        if (text != "Unavailable" && start == 0 && text != "0")
            return;
        domain.attach("mbm_total_bytes", [this, start, part = 64 * share / domains,
                                          first = text == "Unavailable"]() mutable {
            return std::exchange(first, false) ? "Unavailable\n"
                                               : line(start + part * work_.all_sockets().lines);
        });
    });
}

/// In ticks of 10 ms: user and idle, nothing else.
void Meters::attach_stat(const NodeCpus& cpus, TreeEntry& root) {
    const auto row = [](const std::string& name, double busy, double idle) {
        std::ostringstream text;
        text << name << ' ' << static_cast<long long>(busy * 100) << " 0 0 "
             << static_cast<long long>(idle * 100) << " 0 0 0 0 0 0\n";
        return text.str();
    };
    root.put("proc/stat", "").show = [this, row, &cpus] {
        const auto online = cpus.online();
        const double busy = work_.busy_seconds(), passed = work_.seconds();
        std::string text = row("cpu ", busy, passed * static_cast<double>(online.size()) - busy);
        for (const int cpu : online) {
            const double own = work_.of_cpu(cpu).busy_seconds;
            text += row("cpu" + std::to_string(cpu), own, passed - own);
        }
        return text + "ctxt 1\nbtime 1700000000\nprocesses 1\nprocs_running 1\nprocs_blocked 0\n";
    };
}

}  // namespace eas::fake
