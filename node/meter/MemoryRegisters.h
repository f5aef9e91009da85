// The memory counters of processors of models 26 to 62, which a program sets up itself: whether
// they can be had, and whether somebody has them. Looking changes nothing that counts. Any thread.
#pragma once

#include <string>

#include "common/node/CpuTopology.h"

namespace eas::node {

/// What is between a program and the counters.
enum class Obstacle {
    none,
    no_method,   ///< of another model no such counters are known
    registers,   ///< the register devices, or the registers behind them
    memory,      ///< /dev/mem
    table,       ///< the ACPI table MCFG
    page,        ///< a controller's page, which cannot be mapped
    other_page,  ///< the page where a controller is looked for is another device's
    sockets      ///< the same of a socket beyond the second
};

struct RegisterLook {
    Obstacle obstacle = Obstacle::none;
    int error = 0;      ///< errno; 0: none
    std::string found;  ///< in words, also where there is no obstacle
};

/// The processors of this node as the given node functions see them; blank where they do not.
[[nodiscard]] cpuinfo_t known_processors();

/// Whether the memory counters of these processors can be programmed and read.
[[nodiscard]] RegisterLook look_at_registers(const cpuinfo_t& processors);

/// What shows that a program has set them up; empty: they are free. To be asked where no obstacle
/// is.
[[nodiscard]] std::string use_of_registers(const cpuinfo_t& processors);

}  // namespace eas::node
