// The commands of the group "node", which have files of their own.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_info_command(CLI::App& node, Globals& globals);
void add_sensors_command(CLI::App& node, Globals& globals);
void add_sample_command(CLI::App& node, Globals& globals);
void add_frequency_command(CLI::App& node, Globals& globals);
void add_gather_command(CLI::App& node, Globals& globals);

}  // namespace easctl
