#include "node/meter/Powercap.h"

#include <algorithm>
#include <cerrno>
#include <set>

#include "node/files/KeptFile.h"
#include "node/files/PseudoFile.h"
#include "node/meter/Rapl.h"
#include "node/meter/Source.h"

namespace eas::node {
namespace {

const char* const zones_folder = "/sys/class/powercap/";
constexpr std::string_view control_type = "intel-rapl:";
// More than a package draws: a counter that cannot have wrapped twice at that power is sure.
constexpr double most_microwatts = 1e9;

/// A counter in microjoules that begins anew at its range.
class WrappingCounter {
  public:
    explicit WrappingCounter(const std::string& zone)
        : energy_(zones_folder + zone + "/energy_uj"),
          range_(zones_folder + zone + "/max_energy_range_uj") {}

    bool open(std::string& reason) {
        const auto first = energy_.number();
        const auto range = range_.number();
        if (!first || !range || *range == 0) {
            reason = first ? range_.path() + ": no range" : energy_.reason();
            return false;
        }
        last_ = *first;
        whole_range_ = *range;
        return true;
    }

    bool update(std::string& reason) {
        const auto now = energy_.number();
        if (!now || *now > whole_range_) {
            reason = now ? energy_.path() + " is above its range" : energy_.reason();
            return false;
        }
        total_ += *now >= last_ ? *now - last_ : *now + whole_range_ - last_;
        last_ = *now;
        return true;
    }

    [[nodiscard]] double joules() const { return static_cast<double>(total_) * micro; }
    [[nodiscard]] bool stands_at_zero() const { return last_ == 0; }
    /// The time in which it cannot have wrapped twice.
    [[nodiscard]] Nanoseconds sure_for() const {
        const double seconds = static_cast<double>(whole_range_) / most_microwatts;
        return static_cast<Nanoseconds>(seconds * nanoseconds_per_second);
    }

  private:
    KeptFile energy_;
    KeptFile range_;
    std::uint64_t whole_range_ = 0;
    std::uint64_t last_ = 0;
    std::uint64_t total_ = 0;
};

/// Counters that are added up.
class CounterSum {
  public:
    /// `idle_ones_out`: leaves out counters that stand at 0, as those do that a board lacks.
    bool open(const std::vector<std::string>& zones, bool idle_ones_out, std::string& reason) {
        for (const std::string& zone : zones) {
            WrappingCounter counter(zone);
            if (!counter.open(reason))
                return false;
            if (!idle_ones_out || !counter.stands_at_zero())
                counters_.push_back(std::move(counter));
        }
        return true;
    }

    bool update(std::string& reason) {
        return std::all_of(counters_.begin(), counters_.end(),
                           [&](WrappingCounter& counter) { return counter.update(reason); });
    }

    [[nodiscard]] double joules() const {
        double sum = 0;
        for (const WrappingCounter& counter : counters_)
            sum += counter.joules();
        return sum;
    }
    [[nodiscard]] std::size_t size() const { return counters_.size(); }
    [[nodiscard]] Nanoseconds sure_for() const {
        Nanoseconds shortest = UINT64_MAX;
        for (const WrappingCounter& counter : counters_)
            shortest = std::min(shortest, counter.sure_for());
        return shortest;
    }

  private:
    std::vector<WrappingCounter> counters_;
};

/// Zones as they are on this node.
PowerZones find_zones(std::string& reason) {
    int error = 0;
    std::vector<PowerZone> zones;
    for (const std::string& folder : names_in(zones_folder, &error))
        zones.push_back({folder, read_text(zones_folder + folder + "/name").text});
    PowerZones chosen = choose_zones(zones, dies_repeat_their_package());
    if (error != 0)
        reason = why(zones_folder, error);
    else if (chosen.packages.empty())
        reason =
            std::string(zones_folder) + ": no zone of a package (modules intel_rapl_msr, rapl)";
    return chosen;
}

/// What the two sources have in common: a sum of counters that must be read in time.
class ZoneSource : public Source {
  protected:
    void begin(Nanoseconds now, Nanoseconds sure_for) {
        opened_ = last_ = now;
        coverage_.read_within = sure_for;
    }

    bool is_in_time(Nanoseconds now, Result& result) {
        const bool in_time = now - last_ < coverage_.read_within;
        last_ = now;
        if (!in_time)
            result.end("not read in time: a counter may have wrapped unseen");
        return in_time;
    }

    [[nodiscard]] bool has_settled(Nanoseconds now) const { return now - opened_ >= settled_after; }

  private:
    Nanoseconds opened_ = 0;
    Nanoseconds last_ = 0;
};

class Powercap : public ZoneSource {
  public:
    bool open(const Request& request, std::string& reason) {
        const PowerZones zones = find_zones(reason);
        if (zones.packages.empty() || !packages_.open(zones.packages, false, reason) ||
            !memory_.open(zones.memory, true, reason))
            return false;
        coverage_ = rapl_coverage(memory_.size() > 0);
        begin(request.now, std::min(packages_.sure_for(), memory_.sure_for()));
        return true;
    }

    void read(Nanoseconds now, Result& result) override {
        std::string reason;
        if (!is_in_time(now, result))
            return;
        if (!packages_.update(reason) || !memory_.update(reason)) {
            result.end(reason);
            return;
        }
        result.values[0] = packages_.joules() + memory_.joules();
        if (result.values[0] == 0 && has_settled(now))
            result.wait_for("the counters have not moved since the meter was opened");
    }

  private:
    CounterSum packages_;
    CounterSum memory_;
};

class Psys : public ZoneSource {
  public:
    bool open(const Request& request, std::string& reason) {
        const PowerZones zones = find_zones(reason);
        if (zones.platform.empty()) {
            reason = std::string(zones_folder) + ": no zone psys";
            return false;
        }
        // Where the parts cannot be read, there is nothing to hold the platform against.
        std::string no_parts;
        if (!platform_.open({zones.platform}, false, reason) ||
            !parts_.open(zones.packages, false, no_parts))
            return false;
        coverage_ = {EASNODE_PLATFORM, "RAPL platform (psys): extent set by the board", 0};
        begin(request.now, std::min(platform_.sure_for(), parts_.sure_for()));
        return true;
    }

    void read(Nanoseconds now, Result& result) override {
        std::string reason;
        if (!is_in_time(now, result))
            return;
        if (!platform_.update(reason) || !parts_.update(reason)) {
            result.end(reason);
        } else if (has_settled(now) && platform_.joules() <= parts_.joules()) {
            result.end("psys moves less than the packages that it should contain");
        } else {
            result.values[0] = platform_.joules();
        }
    }

  private:
    CounterSum platform_;
    CounterSum parts_;
};

}  // namespace

std::optional<long long> package_of(std::string_view name) {
    constexpr std::string_view beginning = "package-";
    if (name.substr(0, beginning.size()) != beginning)
        return std::nullopt;
    name.remove_prefix(beginning.size());
    const std::size_t die = name.find("-die-");
    if (die != std::string_view::npos && !parse_number(name.substr(die + 5)))
        return std::nullopt;
    const auto package = parse_number(name.substr(0, die));
    return package && *package >= 0 ? package : std::nullopt;
}

PowerZones choose_zones(const std::vector<PowerZone>& zones, bool one_per_package) {
    PowerZones chosen;
    std::set<long long> packages;
    for (const PowerZone& zone : zones) {
        const bool ours = zone.folder.compare(0, control_type.size(), control_type) == 0;
        if (!ours || zone.folder.find(':', control_type.size()) != std::string::npos)
            continue;
        if (zone.name == "psys")
            chosen.platform = zone.folder;
        const auto package = package_of(zone.name);
        if (package && (packages.insert(*package).second || !one_per_package))
            chosen.packages.push_back(zone.folder);
    }
    for (const PowerZone& zone : zones) {
        const std::string parent = zone.folder.substr(0, zone.folder.rfind(':'));
        const bool inside = std::find(chosen.packages.begin(), chosen.packages.end(), parent) !=
                            chosen.packages.end();
        if (inside && zone.name == "dram")
            chosen.memory.push_back(zone.folder);
    }
    return chosen;
}

std::unique_ptr<Source> open_powercap(const Request& request, std::string& reason) {
    auto source = std::make_unique<Powercap>();
    return source->open(request, reason) ? std::move(source) : nullptr;
}

std::unique_ptr<Source> open_psys(const Request& request, std::string& reason) {
    auto source = std::make_unique<Psys>();
    return source->open(request, reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
