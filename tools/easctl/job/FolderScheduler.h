// What "easctl job" knows of a scheduler that is no part of it: what its hooks say on the command
// line, and a folder on a shared file system through which the nodes of one job tell each other
// what the first one chose and what each of them counted.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "adapters/job/Scheduler.h"

namespace easctl {

/// What the hook says of a job.
struct JobFacts {
    std::string node;   ///< this one
    std::string run;    ///< tells this run of the job from all others that used the folder
    std::string share;  ///< root's own folder that all nodes of the job see; empty: there is none
    std::optional<std::vector<std::uint32_t>>
        running;  ///< on this node; none: nodes are not shared
    eas::job::JobEnding ending;
};

class FolderScheduler final : public eas::job::Scheduler {
  public:
    explicit FolderScheduler(JobFacts facts) : facts_(std::move(facts)) {}

    bool job_is_over(std::uint32_t job) override;
    eas::job::JobEnding ending_of(std::uint32_t) override { return facts_.ending; }
    void announce(std::uint32_t job, const eas::job::RunRecord& plan) override;
    std::optional<eas::job::RunRecord> announced(std::uint32_t job) override;
    void report(std::uint32_t job, const eas::job::RunRecord& figures) override;
    std::vector<eas::job::NodeReport> reports(std::uint32_t job) override;
    void keep(std::uint32_t job, const eas::job::RunRecord& record) override;

    /// Removes what the nodes of the job told each other.
    void forget() const;

  private:
    [[nodiscard]] std::string folder() const;

    JobFacts facts_;
};

}  // namespace easctl
