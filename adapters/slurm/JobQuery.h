// JobQuery.h - asks Slurm's controller about a job. May take as long as Slurm's message time-out.
#pragma once

#include <cstdint>
#include <string>

namespace eas::slurm {

/// True when the controller says that the job is over, waits again or is unknown; false also when
/// it does not answer.
bool job_is_over(uint32_t job);

/// Why the figures of a job in its epilog are no whole run's; empty: it completed. The exit code
/// alone does not tell: a job that is cancelled or meets its time limit may have 0. Throws
/// std::runtime_error when the controller does not answer.
std::string why_not_completed(uint32_t job);

}  // namespace eas::slurm
