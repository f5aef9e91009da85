// What both ways to the processors' own energy counters have in common. Any thread.
#pragma once

#include "node/meter/Source.h"

namespace eas::node {

constexpr Nanoseconds settled_after = 2'000'000'000;  ///< every counter has moved by then

/// Whether the kernel may offer one counter of a package once for each of its dies. On Intel
/// processors the dies of a package have counters of their own.
[[nodiscard]] bool dies_repeat_their_package();

/// What packages, with or without counters of their memory, cover.
[[nodiscard]] Coverage rapl_coverage(bool with_memory);

}  // namespace eas::node
