// JobRecord.h - what is kept of a job between its start and its end on a node, as lines of text.
#pragma once

#include <optional>
#include <string>

#include "adapters/job/JobRequest.h"
#include "adapters/job/RunRecord.h"

namespace eas::job {

/// Where a job runs, seen from one of its nodes.
struct JobPlace {
    std::string node;   // this one
    std::string first;  // the node that decides, and generates the tag
    unsigned nodes = 1;
    std::string type;  // of this node, by the site's settings

    [[nodiscard]] bool is_first() const { return node == first; }
    [[nodiscard]] bool has_others() const { return nodes > 1; }
};

struct JobRecord {
    JobRequest request;
    JobPlace place;
    std::optional<RunRecord> plan;     // at which frequency it runs, and why
    std::string settings;              // libeasnode's text; empty: there is nothing to set back
    std::optional<RunRecord> figures;  // of this node, once its meter was read for the last time
    std::optional<RunRecord> run;      // what accounting is to keep
    std::string disturbed;             // why the figures are not the job's own; empty: they are

    /// It runs at the default frequency to make a tag.
    [[nodiscard]] bool is_measured() const {
        return plan && plan->policy.empty() && request.purpose() != Purpose::observe;
    }
};

/// The lines of a record.
namespace line {
std::string request(const JobRequest& request);
std::string place(const JobPlace& place);
std::string plan(const RunRecord& plan);
std::string settings(const std::string& text);
std::string given_back();  // the settings above hold again
std::string figures(const RunRecord& figures);
std::string run(const RunRecord& run);
std::string disturbed(const std::string& reason);
}  // namespace line

/// Lines that make no sense are passed over.
JobRecord parse_record(const std::string& text);

}  // namespace eas::job
