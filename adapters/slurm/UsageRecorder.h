// UsageRecorder.h - counts what the steps of a measured job do to the node, from inside the step
// daemon. The counters are the node's: the memory traffic can be had in no other way, and of two
// that count at once each would reset the other's. So one step counts for all that run beside it;
// in a batch job that is the script itself.
#pragma once

#include <memory>

#include "adapters/slurm/ChildCall.h"
#include "adapters/slurm/PluginArguments.h"
#include "adapters/slurm/StateFolder.h"

namespace eas::slurm {

class UsageRecorder {
  public:
    /// Starts counting if the job is to be measured here and no other step counts. What hinders it
    /// goes into the job's record, for the epilog to tell.
    UsageRecorder(PluginArguments arguments, uint32_t job, uint32_t step);

    /// Notes the end of the step, with its figures.
    void finish();

  private:
    void begin(const StateFolder& folder);
    void expect_answer(const StateFolder& folder) const;

    PluginArguments arguments_;
    uint32_t job_;
    uint32_t step_;
    bool noted_ = false;                  // the job's record knows of this step
    std::unique_ptr<Companion> sampler_;  // null: this step does not count
};

}  // namespace eas::slurm
