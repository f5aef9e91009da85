// Memory traffic of the node, by the method that the processor model has. One thread samples.
#pragma once

#include "common/node/EasMisc.h"

/// Programs every socket. 0, also for a model without a method; -1 when the memory channels of a
/// socket cannot be had: the sockets before it are then given back, its own stay mapped until the
/// clean-up.
int init_uncore_counters();

/// Fills membytes_xferred (bytes since programming) and netbytes_xferred (0). Returns 0.
int read_uncore_counters(hwrusage* usage);

/// Undoes the programming of a socket (physical id). Returns the method's result, 0 for none.
int cleanup_uncore(unsigned socket);
