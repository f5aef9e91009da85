// The links of the stored tags: which model made them, and whether they still fit their runs.
#pragma once

#include <vector>

#include "common/model/CoEfficients.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/doctor/DatabaseLinks.h"

namespace easctl {

/// Of the cluster and default frequency of `model`.
Link tags_of_model(Database& database, const std::string& cluster, const CoEfficients& model);
/// By runs of the past.
Link drift_of_tags(const RunOptions& runs, Globals& globals);

}  // namespace easctl
