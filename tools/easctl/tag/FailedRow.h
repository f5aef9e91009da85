// A row of a jobs file that failed, for the messages and for the document.
#pragma once

#include <string>

#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/tag/TagNames.h"

namespace easctl {

struct FailedRow {
    std::string place;  ///< "FILE:LINE"
    Failure failure;
    TagNames names;  ///< empty when the row could not be read

    [[nodiscard]] std::string text() const;
    [[nodiscard]] Json json() const;
};

}  // namespace easctl
