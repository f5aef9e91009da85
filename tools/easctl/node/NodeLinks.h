// The links from the library to the hardware of this node.
#pragma once

#include <vector>

#include "common/model/CoEfficients.h"
#include "tools/easctl/cli/Link.h"

namespace easctl {

/// The links of the hardware of this node. `model` may be empty.
std::vector<Link> examine_node(const CoEfficients& model);

}  // namespace easctl
