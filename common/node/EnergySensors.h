// The energy meter's sensor files and the processors' temperature. Keeps no state; any thread.
#pragma once

#include <array>

#include "common/node/CpuTopology.h"
#include "common/node/EasMisc.h"

/// Sensor files in the order of the fields of enrusage, which have the same names.
extern const std::array<const char*, 14> value_files;

/// What inlet_temperature holds when there is no reading.
constexpr unsigned no_temperature = 999;

/// Fills inlet_temperature: degrees Celsius below the highest allowed junction temperature, mean of
/// the sockets, or no_temperature when a socket has no valid reading. Needs the topology, root and
/// the "msr" kernel module. Returns 0.
int read_inlet_temperature(hwrusage* usage);

namespace eas {

/// What read_inlet_temperature stores, for these processors. A mean below 0 wraps.
[[nodiscard]] std::uint64_t mean_margin(const cpuinfo_t& processors);

/// The number that the text of a sensor file begins with (strtoul(3), base 0); 0 for none and for
/// one that does not fit.
[[nodiscard]] unsigned long parse_sensor_value(const char* text) noexcept;

}  // namespace eas
