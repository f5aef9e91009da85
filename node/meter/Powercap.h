// The zones of /sys/class/powercap: which of them together are the node's packages and memory, none
// counted twice. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace eas::node {

/// A zone: its folder's name ("intel-rapl:a:0") and the name it bears ("dram").
struct PowerZone {
    std::string folder;
    std::string name;
};

/// The folders of the zones to be added up.
struct PowerZones {
    std::vector<std::string> packages;
    std::vector<std::string> memory;  ///< of these packages
    std::string platform;             ///< empty: none
};

/// The number N of "package-N" and "package-N-die-M"; null for other names.
[[nodiscard]] std::optional<long long> package_of(std::string_view name);

/// Picks from all zones. `one_per_package`: the dies of a package repeat one counter, so that one
/// of them stands for all; else they add up. Zones of other control types are passed over: they
/// repeat the first package.
[[nodiscard]] PowerZones choose_zones(const std::vector<PowerZone>& zones, bool one_per_package);

}  // namespace eas::node
