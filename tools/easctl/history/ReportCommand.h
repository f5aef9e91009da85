#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

/// easctl report.
void add_report_command(CLI::App& app, Globals& globals);

}  // namespace easctl
