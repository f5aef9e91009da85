// easctl tag list and show: tags for the eye.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_tag_list(CLI::App& group, Globals& globals);
void add_tag_show(CLI::App& group, Globals& globals);

}  // namespace easctl
