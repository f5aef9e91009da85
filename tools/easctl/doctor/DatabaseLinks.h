// The links from the locator file to the coefficients and thresholds.
#pragma once

#include <string>
#include <vector>

#include "common/model/CoEfficients.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/database/Database.h"
#include "tools/easctl/history/RunSource.h"

namespace easctl {

struct DoctorOptions {
    DatabaseOptions database;
    std::string cluster;
    int default_khz = 0;
    std::string thresholds;
    RunOptions runs;
    bool node = false;
    bool node_only = false;
};

/// The links of the database, as far as one can be looked at without the one before. `model` gets
/// the cluster's coefficients, if they are found.
std::vector<Link> examine_database(const DoctorOptions& options, CoEfficients& model);

}  // namespace easctl
