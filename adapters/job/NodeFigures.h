// NodeFigures.h - what the nodes of a job counted, put together.
#pragma once

#include <string>
#include <vector>

#include "adapters/job/JobRecord.h"
#include "adapters/job/Scheduler.h"

namespace eas::job {

/// A node's own report: its figures, or why they are not the job's.
NodeReport report_of(const JobRecord& record);

struct WholeRun {
    RunRecord run;        // the plan, and the figures of all nodes that reported
    std::string trouble;  // why these do not tell of the whole job; empty: they do
    std::string unlike;   // why the nodes' figures have no common measure; empty: they have
};

/// Seconds and counters are means, joules are added up where all nodes have the same meter.
WholeRun combine(const JobRecord& record, const std::vector<NodeReport>& reports);

/// Why the figures of a whole run make no tag; empty: they do. `spread`: percent.
std::string objection(const RunRecord& run, int spread);

/// "27216.0 J in 63.21 s, mean 215.3 W" or what of it there is; the mean is that of a node.
std::string describe(const RunRecord& run);

}  // namespace eas::job
