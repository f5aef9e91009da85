// What the progress of a group of events means for the figure that it belongs to.
#pragma once

#include <string>

#include "node/meter/PerfGroup.h"
#include "node/meter/Source.h"

namespace eas::node {

/// Whether the group goes on counting; where it has no data, the figure waits for it. `who` gives
/// its name, for which there is no need in most readings. `scaled` is set where it had to share.
template <typename Who>
bool goes_on(Progress progress, const Who& who, bool& scaled, Result& result) {
    scaled = scaled || progress == Progress::scaled;
    if (progress == Progress::no_data)
        result.wait_for(who() + ": other users had the counters since the last reading");
    return progress != Progress::stopped && progress != Progress::unreadable;
}

}  // namespace eas::node
