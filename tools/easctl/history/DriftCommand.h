#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

/// easctl drift.
void add_drift_command(CLI::App& app, Globals& globals);

}  // namespace easctl
