// Units that the library does not count in, but people do.
#pragma once

namespace easctl {

inline constexpr double joules_per_kwh = 3.6e6;

/// What is below or above is no frequency in kHz, but in another unit.
inline constexpr int lowest_khz = 100'000;
inline constexpr int highest_khz = 20'000'000;

}  // namespace easctl
