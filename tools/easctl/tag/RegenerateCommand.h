// easctl tag regenerate: makes tags anew with the present model.
#pragma once

#include "tools/easctl/cli/Command.h"

namespace easctl {

void add_tag_regenerate(CLI::App& group, Globals& globals);

}  // namespace easctl
