// easctl tag remove: tags taken out of the database.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_tag_remove(CLI::App& group, Globals& globals);

}  // namespace easctl
