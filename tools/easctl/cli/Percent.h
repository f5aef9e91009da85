// Changes as people read them, with their sign.
#pragma once

#include <string>

#include "tools/easctl/cli/Output.h"

namespace easctl {

/// "+3.42", "-0.10"; "+0.00" for what rounds to it.
inline std::string signed_number(double value, int decimals) {
    const std::string text = number(value, decimals);
    return text.front() == '-' ? text : '+' + text;
}

/// A fraction as a percentage.
inline std::string signed_percent(double fraction, int decimals = 2) {
    return signed_number(100.0 * fraction, decimals);
}

}  // namespace easctl
