// easctl tag generate: tags of past jobs.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_tag_generate(CLI::App& group, Globals& globals);

}  // namespace easctl
