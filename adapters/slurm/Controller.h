// Controller.h - asks and tells Slurm's controller, through its C interface: of a job, of the
// nodes. A call may take as long as Slurm's message time-out. Errors are std::runtime_error.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace eas::slurm {

/// A job as the controller sees it.
struct JobStanding {
    uint32_t state = 0;  // with flags
    bool was_suspended = false;
    bool is_exclusive = false;
    bool holds_gpus = false;
    std::time_t start = 0;  // of this run
    std::string name;
    std::string comment;  // AdminComment
};

/// No value when there is no such job.
std::optional<JobStanding> load_job(uint32_t job);
/// Of a job that runs.
void set_comment(uint32_t job, std::string comment);

/// A node's words: features that are active now, and the text that anybody may set.
struct NodeWords {
    std::string name, features, extra;
};

/// One node, or all of them for an empty name.
std::vector<NodeWords> load_nodes(std::string name);
void set_extra(std::string node, std::string extra);

}  // namespace eas::slurm
