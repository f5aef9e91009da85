// easctl history: the runs of the past, shown, converted, or kept in a file that follows
// accounting.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_history_command(CLI::App& app, Globals& globals);

}  // namespace easctl
