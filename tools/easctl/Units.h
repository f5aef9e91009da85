// Units that the library does not count in, but people do.
#pragma once

namespace easctl {

inline constexpr double joules_per_kwh = 3.6e6;

}  // namespace easctl
