#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

/// easctl metrics.
void add_metrics_command(CLI::App& app, Globals& globals);

}  // namespace easctl
