// JobOnNode.h - what is done for a job on a node, before its first task and after its last one. The
// functions run in child processes with a time limit; errors are std::runtime_error.
#pragma once

#include "adapters/job/ChildCall.h"
#include "adapters/job/JobRecord.h"
#include "adapters/job/Scheduler.h"
#include "adapters/job/SiteSettings.h"

namespace eas::job {

/// Starts the record of a job that asks for nothing. False when that is not all there is to do:
/// there are other records. Touches files below /run only, so it needs no child process.
bool note_plain_job(const SiteSettings& settings, const JobRequest& request, const JobPlace& place);

/// Sets back what dead jobs left and starts the job's record; with a tag chooses the frequency or
/// learns it from the job's first node, sets it, and starts the meter.
Outcome start_job(const SiteSettings& settings, const JobRequest& request, const JobPlace& place,
                  Scheduler& scheduler);

/// All that is done at a job's end on a node, each part in a child of its own: a frequency is set
/// back whether or not the library answers, and what the job needed is known whether or not the
/// database does.
Outcome end_job(const SiteSettings& site, uint32_t job, Scheduler& scheduler);

/// The job asks for a frequency of its own: the node is given back to the scheduler.
Outcome yield_to_user(const SiteSettings& settings, uint32_t job);

/// The frequency for a job, and why; asks the database.
RunRecord make_plan(const SiteSettings& settings, const JobRequest& request, std::string& why);

}  // namespace eas::job
