// JobQuery.h - asks Slurm's controller about a job.
#pragma once

#include <cstdint>

namespace eas::slurm {

/// True when the controller says that the job is over, waits again or is unknown; false also when
/// it does not answer. May take as long as Slurm's message time-out.
bool job_is_over(uint32_t job);

}  // namespace eas::slurm
