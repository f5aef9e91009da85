// easctl tag select: the frequency for a job, and why.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_tag_select(CLI::App& group, Globals& globals);

}  // namespace easctl
