// FrequencyGuard.h - sets the frequency of a node's CPUs, and sets them back as they were. What
// they were is read before anything changes; the caller keeps it, so that another process can set
// it back. KHz. Needs root; errors are std::runtime_error.
#pragma once

#include <string>
#include <vector>

#include "adapters/slurm/EasLibrary.h"
#include "adapters/slurm/JobRecord.h"
#include "adapters/slurm/StateFolder.h"

namespace eas::slurm {

/// Governor and speed of every CPU of the node.
std::vector<CpuSetting> read_settings(const EasLibrary& library);

/// Fixes every CPU of `settings` at `frequency`; throws at the first that does not run at it then.
void apply_frequency(const EasLibrary& library, const std::vector<CpuSetting>& settings,
                     int frequency);

/// Sets the node back before the job's end, and notes in its record that it ran otherwise, and why.
void give_up_frequency(const StateFolder& folder, const JobRecord& record, const std::string& why);

/// Sets the CPUs back, by the kernel's files alone: the library may have gone in the meantime.
/// All are tried, whichever fail.
void restore(const std::vector<CpuSetting>& settings);

}  // namespace eas::slurm
