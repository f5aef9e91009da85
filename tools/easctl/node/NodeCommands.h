// The commands of the group "node" that have files of their own.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_sensors_command(CLI::App& node, Globals& globals);
void add_sample_command(CLI::App& node, Globals& globals);

}  // namespace easctl
