#include "base/Numbers.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace eas {
namespace {

/// The C library's own "C" locale: asking for it allocates nothing and cannot fail.
locale_t c_locale() noexcept {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

}  // namespace

double to_double(const char* text) noexcept {
    return ::strtod_l(text, nullptr, c_locale());
}

int to_int(const char* text) noexcept {
    const long value = ::strtol_l(text, nullptr, 10, c_locale());
    return value >= INT_MIN && value <= INT_MAX ? static_cast<int>(value) : INT_MIN;
}

void append_formatted(std::string& out, std::size_t limit, const char* format, ...) {
    std::array<char, 1024> buffer;
    const CLocaleScope c_locale_here;
    std::va_list arguments;
    va_start(arguments, format);
    const int written =
        std::vsnprintf(buffer.data(), std::min(limit, buffer.size()), format, arguments);
    va_end(arguments);
    if (written >= 0)
        out += buffer.data();
}

CLocaleScope::CLocaleScope() noexcept : previous_(::uselocale(c_locale())) {}
CLocaleScope::~CLocaleScope() {
    ::uselocale(previous_);
}

}  // namespace eas
