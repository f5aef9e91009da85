// Which power meters of a node are to be added up. Any thread.
#pragma once

#include <string>
#include <vector>

#include "node/node.h"

namespace eas::node {

/// A meter's folder, and what its maker says that it measures; empty: no word.
struct MeterInfo {
    std::string folder;
    std::string info;
};

/// The folders of the meters to be added up, and what they cover together.
struct ChosenMeters {
    std::vector<std::string> folders;  ///< empty: `words` says why
    easnode_extent extent = EASNODE_NO_EXTENT;
    const char* words = "";
};

/// One meter is the node's. Of several those of one level are taken, the widest one: a level
/// contains those below it.
[[nodiscard]] ChosenMeters choose_meters(const std::vector<MeterInfo>& meters);

}  // namespace eas::node
