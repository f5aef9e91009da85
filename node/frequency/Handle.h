// What the handles of node.h stand for.
#pragma once

#include "node/frequency/NodeFrequency.h"

struct easnode_frequency {
    eas::node::NodeFrequency frequency;
};
