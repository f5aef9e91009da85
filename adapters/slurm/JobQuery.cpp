#include "adapters/slurm/JobQuery.h"

#include <slurm/slurm.h>
#include <slurm/slurm_errno.h>

#include <cerrno>
#include <memory>

namespace eas::slurm {

bool job_is_over(uint32_t job) {
    job_info_msg_t* answer = nullptr;
    if (slurm_load_job(&answer, job, SHOW_ALL) != 0)
        return errno == ESLURM_INVALID_JOB_ID;
    const std::unique_ptr<job_info_msg_t, void (*)(job_info_msg_t*)> owner(answer,
                                                                           slurm_free_job_info_msg);
    for (uint32_t i = 0; i < answer->record_count; ++i) {
        const uint32_t state = answer->job_array[i].job_state;
        const uint32_t base = state & JOB_STATE_BASE;
        if ((state & JOB_COMPLETING) != 0 || base == JOB_RUNNING || base == JOB_SUSPENDED)
            return false;
    }
    return true;
}

}  // namespace eas::slurm
