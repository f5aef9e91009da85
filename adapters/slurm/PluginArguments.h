// PluginArguments.h - what the administrator wrote behind the plugin's name in plugstack.conf:
// words "name=value". Plain data; seconds, KHz.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace eas::slurm {

struct PluginArguments {
    std::string library = "libeas.so.1";                  // name or path, as for dlopen
    std::string cluster;                                  // empty: Slurm's cluster name
    std::string thresholds = "/etc/eas/thresholds.conf";  // the site's performance thresholds
    std::string state = "/run/eas-slurm";                 // folder of the jobs' records
    std::string odbcini = "/etc/odbc.ini";                // file with the data sources
    std::string odbcsysini = "/etc";                      // folder of odbcinst.ini
    int default_frequency = 0;                            // KHz, at which jobs are measured
    int limit = 10;                                       // s, for each visit to the library
    std::vector<std::string> complaints;                  // about words that were not understood

    /// Shorter than the limit, so that who waits in vain for the lock can still say so.
    [[nodiscard]] std::chrono::milliseconds lock_wait() const {
        return std::chrono::milliseconds(limit * 800);
    }
};

/// Words that are not understood change nothing and leave a complaint.
PluginArguments parse_arguments(int count, char** words);

}  // namespace eas::slurm
