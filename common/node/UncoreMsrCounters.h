// Memory traffic from the uncore's model-specific registers: the processors of models 26, 30, 37
// and 44, and the boxes of model 47. Needs root and the "msr" kernel module; the calling thread is
// kept on a CPU of the socket for each sequence. One thread samples.
#pragma once

#include <cstdint>

#include "common/node/ProcessorModel.h"

/// Programs the two memory events of every socket, or the four box events. Register accesses that
/// fail are passed over.
void init_uncore_msrs();
void init_uncore_boxes();

/// Lines read and written by a socket (index in the order of appearance) since it was programmed;
/// 0 for one without a CPU.
std::uint64_t getuncrw(unsigned socket);
std::uint64_t getboxrw(unsigned socket);

/// Stops the counters of a socket (physical id). Returns what giving the affinity back returned; 0
/// for a socket without a CPU.
int cleanup_uncore_msrs(unsigned socket);
int cleanup_uncore_boxes(unsigned socket);

namespace eas {

/// The register that holds what counts in a socket, 0 while nothing does; 0 for a method without.
[[nodiscard]] std::uint32_t global_control(MemoryMethod method) noexcept;

}  // namespace eas
