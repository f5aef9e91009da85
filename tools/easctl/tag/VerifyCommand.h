// easctl tag verify: a later run's measurements beside what its tag predicted.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_tag_verify(CLI::App& group, Globals& globals);

}  // namespace easctl
