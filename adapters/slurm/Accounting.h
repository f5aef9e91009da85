// Accounting.h - the job's AdminComment in Slurm's accounting, through its C interface: the
// controller takes no comment on a job that has ended, and sacctmgr writes it in small letters.
// Takes as long as the accounting daemon does. Errors are std::runtime_error.
#pragma once

#include <cstdint>
#include <string>

#include "adapters/job/RunRecord.h"

namespace eas::slurm {

/// Puts the record into the comment once accounting knows that the job has ended, since the
/// controller's own report of the end would replace it; what else the comment holds stays.
void keep_in_accounting(std::string cluster, uint32_t job, const job::RunRecord& record);

}  // namespace eas::slurm
