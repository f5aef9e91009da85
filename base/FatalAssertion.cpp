#include "base/FatalAssertion.h"

#include <cstdio>
#include <cstdlib>

namespace eas {

void fatal_assertion_failed(const char* condition, const char* file, int line) noexcept {
    std::fprintf(stderr, "libeas: %s:%d: assertion `%s' failed\n", file, line, condition);
    std::abort();
}

}  // namespace eas
