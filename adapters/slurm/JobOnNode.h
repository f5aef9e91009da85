// JobOnNode.h - what is done for a job on a node, before its first task and after its last one.
// Runs in child processes with a time limit; errors are std::runtime_error.
#pragma once

#include <functional>
#include <string>

#include "adapters/slurm/ChildCall.h"
#include "adapters/slurm/JobRecord.h"
#include "adapters/slurm/PluginArguments.h"

namespace eas::slurm {

struct NodeRole {
    bool first = false;                         // the node that generates the tag
    std::function<bool(uint32_t)> job_is_over;  // asks Slurm; false when it does not answer
};

/// Sets back what dead jobs left, starts the job's record, and with a tag fixes the frequency and
/// reads the meter.
Outcome start_job(const PluginArguments& arguments, const JobRequest& request,
                  const NodeRole& role);

/// Sets the frequency back, unless that was done before the job's end.
Outcome give_back(const PluginArguments& arguments, uint32_t job);

/// Notes the meter's reading at the end and says what the job needed; no text where the prolog took
/// no reading.
Outcome read_meter_again(const PluginArguments& arguments, uint32_t job);

/// Generates the tag of a measured job from its record.
Outcome make_tag(const PluginArguments& arguments, const JobRecord& record);

/// A step asks for a frequency of its own: the node is given back to Slurm.
Outcome yield_to_user(const PluginArguments& arguments, uint32_t job);

}  // namespace eas::slurm
