// easctl tag export and import: tags as a file, from one database into another.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_tag_export(CLI::App& group, Globals& globals);
void add_tag_import(CLI::App& group, Globals& globals);

}  // namespace easctl
