// Assertions that the behaviour depends on: unlike assert() they hold in a release build too.
#pragma once

namespace eas {

/// Stops the process with SIGABRT, after a line on standard error that names the condition.
[[noreturn]] void fatal_assertion_failed(const char* condition, const char* file,
                                         int line) noexcept;

/// Goes on when `holds`; otherwise stops the process. `condition` is the text for the message.
inline void require_or_abort(bool holds, const char* condition, const char* file = __builtin_FILE(),
                             int line = __builtin_LINE()) noexcept {
    if (!holds)
        fatal_assertion_failed(condition, file, line);
}

}  // namespace eas
