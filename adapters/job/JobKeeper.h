// JobKeeper.h - a process that stays on a node as long as a job: it holds the meter, which counts
// from its opening on, and reads it in time; on a job of several nodes it looks now and then
// whether another node has called the job's frequency off. It ends when it is told to, or when the
// job's record is gone.
#pragma once

#include "adapters/job/JobRecord.h"
#include "adapters/job/Scheduler.h"
#include "adapters/job/SiteSettings.h"
#include "adapters/job/StateFolder.h"

namespace eas::job {

/// Returns when the meter counts; throws std::runtime_error when it does not.
void start_keeper(const SiteSettings& settings, uint32_t job, const JobPlace& place,
                  Scheduler& scheduler);

/// Has it read the meter for the last time; the job's record then holds the figures. Throws
/// std::runtime_error when there is no keeper, or it does not answer in time.
void stop_keeper(const StateFolder& folder, uint32_t job, int seconds);

/// Whether joules of this meter are those of the processors, with their memory or without it.
bool covers_processors_alone(const std::string& meter);

}  // namespace eas::job
