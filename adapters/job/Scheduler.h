// Scheduler.h - what is asked of a scheduler, and what the nodes of one job tell each other through
// it. An adapter implements it. Calls may take long: they are made in child processes with a time
// limit. Errors are std::runtime_error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "adapters/job/RunRecord.h"

namespace eas::job {

/// What a node of a job tells of it.
struct NodeReport {
    std::string node;
    RunRecord figures;
};

/// How a job ended.
struct JobEnding {
    std::string why_not_whole;  // why its figures are no whole run's; empty: it completed
    bool holds_gpus = false;
};

class Scheduler {
  public:
    virtual ~Scheduler() = default;

    /// True when the job is over, waits again or is unknown; false also without an answer.
    virtual bool job_is_over(uint32_t job) = 0;
    /// Of a job whose tasks have all ended. The exit code alone does not tell: a job that is
    /// cancelled or meets its time limit may have 0.
    virtual JobEnding ending_of(uint32_t job) = 0;

    // For jobs on several nodes.

    /// Makes known, to all nodes of the job, at which frequency it runs. A later one, with the
    /// outcome "failed", calls it off.
    virtual void announce(uint32_t job, const RunRecord& plan) = 0;
    /// What was announced in this run of the job; none yet: no value.
    virtual std::optional<RunRecord> announced(uint32_t job) = 0;
    /// Makes known to the job's first node what this node counted.
    virtual void report(uint32_t job, const RunRecord& figures) = 0;
    /// What the job's other nodes have reported so far, in this run of the job.
    virtual std::vector<NodeReport> reports(uint32_t job) = 0;

    /// Keeps the record of a run in the scheduler's accounting.
    virtual void keep(uint32_t job, const RunRecord& record) = 0;
};

}  // namespace eas::job
