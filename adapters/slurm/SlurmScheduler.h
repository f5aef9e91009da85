// SlurmScheduler.h - what the nodes of a job tell each other through Slurm's controller: the first
// one writes the plan into the job's AdminComment while the job starts; at its end, when Slurm
// takes no more of a job, each node writes its figures into its own Extra. Both texts keep what
// else they hold. The run of a job that is requeued is told from the former one by its start.
#pragma once

#include "adapters/job/Scheduler.h"

namespace eas::slurm {

class SlurmScheduler final : public job::Scheduler {
  public:
    SlurmScheduler(std::string cluster, std::string node)
        : cluster_(std::move(cluster)), node_(std::move(node)) {}

    bool job_is_over(uint32_t job) override;
    job::JobEnding ending_of(uint32_t job) override;
    void announce(uint32_t job, const job::RunRecord& plan) override;
    std::optional<job::RunRecord> announced(uint32_t job) override;
    void report(uint32_t job, const job::RunRecord& figures) override;
    std::vector<job::NodeReport> reports(uint32_t job) override;
    void keep(uint32_t job, const job::RunRecord& record) override;

  private:
    std::string cluster_;  // Slurm's name of it
    std::string node_;     // this one
};

}  // namespace eas::slurm
