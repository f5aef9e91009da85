// SiteSettings.h - what the administrator decided for the jobs of a site: words "name=value" in the
// scheduler's configuration, lines "name=value" in a file. Plain data; seconds, kHz.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace eas::job {

/// Nodes that the scheduler knows by a feature, with coefficients of their own; what is empty or 0
/// is as for all others.
struct NodeType {
    std::string feature;
    std::string cluster;
    std::string thresholds;
    int default_frequency = 0;
};

struct SiteSettings {
    std::string library = "libeas.so.1";                  // name or path, as for dlopen
    std::string node_library = "libeasnode.so.1";         // the same
    std::string cluster;                                  // empty: the scheduler's cluster name
    std::string thresholds = "/etc/eas/thresholds.conf";  // the site's performance thresholds
    std::string state = "/run/eas-slurm";                 // folder of the jobs' records
    std::string odbcini = "/etc/odbc.ini";                // file with the data sources
    std::string odbcsysini = "/etc";                      // folder of odbcinst.ini
    std::string default_policy;                           // of jobs without one; empty: none
    std::string tag = "option";                           // or "jobname"
    std::string record = "none";                          // or "accounting", "file"
    std::string record_file = "/var/log/eas/runs";        // of record=file
    std::string observe = "no";                           // or "yes": count, set nothing
    std::string energy_sources;           // of libeasnode's meter; empty: its own order
    int default_frequency = 0;            // kHz, at which jobs are measured
    int limit = 10;                       // s, for each visit to the library
    int spread = 20;                      // %, of the nodes' joules; more makes no tag
    std::vector<NodeType> types;          // the first that fits a node counts
    std::string type;                     // of this node; empty: none of them
    std::vector<std::string> complaints;  // about words that were not understood

    /// Shorter than the limit, so that who waits in vain can still say so.
    [[nodiscard]] std::chrono::milliseconds patience() const {
        return std::chrono::milliseconds(limit * 800);
    }
    /// Whether jobs without an option may concern us.
    [[nodiscard]] bool looks_at_all_jobs() const {
        return observe == "yes" || (!default_policy.empty() && tag == "jobname");
    }
};

/// Words that are not understood change nothing and leave a complaint. "config=FILE" reads a file.
SiteSettings parse_settings(int count, const char* const* words);

/// The lines of a configuration file: "name=value", "[feature]" before lines for nodes of a type,
/// "#" before a remark. As for words.
void read_lines(std::string_view text, SiteSettings& settings);

/// The settings for a node with these features, "fat,gpu" for instance.
SiteSettings settings_of_node(SiteSettings settings, std::string_view features);

}  // namespace eas::job
