// What the scheduler functions' return codes mean for a person. Some mean different things from
// different functions.
#pragma once

#include <string>

#include "tools/easctl/cli/Errors.h"

namespace easctl {

enum class Function { initialize, generate_tag, query_tag, remove_tag, auto_select_frequency };

/// Why `function` returned `code` for `what`, which may be empty; `said` is what the driver said.
Failure refusal(Function function, int code, const std::string& what, const std::string& said = {});

}  // namespace easctl
