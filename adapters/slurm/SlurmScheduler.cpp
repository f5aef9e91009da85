#include "adapters/slurm/SlurmScheduler.h"

#include <slurm/slurm.h>

#include <stdexcept>

#include "adapters/slurm/Accounting.h"
#include "adapters/slurm/Controller.h"

namespace eas::slurm {
namespace {

using job::RunRecord;

std::string why_not_whole(const JobStanding& standing) {
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

JobStanding existing(uint32_t job) {
    const std::optional<JobStanding> standing = load_job(job);
    if (!standing)
        throw std::runtime_error("Slurm knows no such job");
    return *standing;
}

/// The record if it is one of this run of the job.
std::optional<RunRecord> of_run(const std::string& text, uint32_t job, std::time_t start) {
    std::optional<RunRecord> record = job::find_record(text);
    if (record && record->job == std::to_string(job) && record->start &&
        static_cast<std::time_t>(*record->start) == start)
        return record;
    return std::nullopt;
}

RunRecord marked(RunRecord record, uint32_t job, std::time_t start) {
    record.job = std::to_string(job);
    record.start = static_cast<double>(start);
    return record;
}

}  // namespace

bool SlurmScheduler::job_is_over(uint32_t job) {
    try {
        const std::optional<JobStanding> standing = load_job(job);
        if (!standing)
            return true;
        const uint32_t base = standing->state & JOB_STATE_BASE;
        return (standing->state & JOB_COMPLETING) == 0 && base != JOB_RUNNING &&
               base != JOB_SUSPENDED;
    } catch (const std::runtime_error&) {
        return false;
    }
}

job::JobEnding SlurmScheduler::ending_of(uint32_t job) {
    const JobStanding standing = existing(job);
    return {why_not_whole(standing), standing.holds_gpus};
}

void SlurmScheduler::announce(uint32_t job, const RunRecord& plan) {
    const JobStanding standing = existing(job);
    set_comment(job, with_record(standing.comment, marked(plan, job, standing.start)));
}

std::optional<RunRecord> SlurmScheduler::announced(uint32_t job) {
    const JobStanding standing = existing(job);
    return of_run(standing.comment, job, standing.start);
}

void SlurmScheduler::report(uint32_t job, const RunRecord& figures) {
    const JobStanding standing = existing(job);
    for (const NodeWords& node : load_nodes(node_))
        set_extra(node_, with_record(node.extra, marked(figures, job, standing.start)));
}

std::vector<job::NodeReport> SlurmScheduler::reports(uint32_t job) {
    const JobStanding standing = existing(job);
    std::vector<job::NodeReport> all;
    for (const NodeWords& node : load_nodes(""))
        if (std::optional<RunRecord> figures = of_run(node.extra, job, standing.start))
            all.push_back({node.name, std::move(*figures)});
    return all;
}

void SlurmScheduler::keep(uint32_t job, const RunRecord& record) {
    keep_in_accounting(cluster_, job, record);
}

}  // namespace eas::slurm
