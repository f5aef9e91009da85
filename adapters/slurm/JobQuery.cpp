#include "adapters/slurm/JobQuery.h"

#include <slurm/slurm.h>
#include <slurm/slurm_errno.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>

namespace eas::slurm {
namespace {

struct JobStanding {
    uint32_t state = JOB_END;  // with flags
    bool was_suspended = false;
};

/// How the controller sees the job; nothing when there is no such job.
std::optional<JobStanding> standing_of(uint32_t job) {
    job_info_msg_t* answer = nullptr;
    if (slurm_load_job(&answer, job, SHOW_ALL) != 0) {
        const int error = errno;
        if (error == ESLURM_INVALID_JOB_ID)
            return std::nullopt;
        throw std::runtime_error(std::string("Slurm does not say how the job stands: ") +
                                 slurm_strerror(error));
    }
    const std::unique_ptr<job_info_msg_t, void (*)(job_info_msg_t*)> owner(answer,
                                                                           slurm_free_job_info_msg);
    // Asked for an array or the leader of a heterogeneous job it tells of all their jobs.
    for (uint32_t i = 0; i < answer->record_count; ++i)
        if (answer->job_array[i].job_id == job)
            return JobStanding{answer->job_array[i].job_state,
                               answer->job_array[i].suspend_time != 0};
    return std::nullopt;
}

}  // namespace

bool job_is_over(uint32_t job) {
    try {
        const uint32_t state = standing_of(job).value_or(JobStanding{}).state;
        const uint32_t base = state & JOB_STATE_BASE;
        return (state & JOB_COMPLETING) == 0 && base != JOB_RUNNING && base != JOB_SUSPENDED;
    } catch (const std::runtime_error&) {
        return false;
    }
}

std::string why_not_completed(uint32_t job) {
    const JobStanding standing = standing_of(job).value_or(JobStanding{});
    switch (standing.state & JOB_STATE_BASE) {
        case JOB_COMPLETE:
            return standing.was_suspended ? "the job was suspended" : "";
        case JOB_CANCELLED:
            return "the job was cancelled";
        case JOB_TIMEOUT:
        case JOB_DEADLINE:
            return "the job reached its time limit";
        case JOB_PREEMPTED:
            return "the job was preempted";
        case JOB_FAILED:
            return "the job failed";
        default:
            return "the job did not end well";
    }
}

}  // namespace eas::slurm
