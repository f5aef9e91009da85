// Numbers as text and back, with the same result in every locale and a defined one for every value:
// the host program's locale must not change how a file is read (5.5 must not become 5) or a report
// looks.
#pragma once

#include <locale.h>

#include <array>
#include <charconv>
#include <climits>
#include <cstddef>
#include <string>

namespace eas {

/// As atof() in the "C" locale.
[[nodiscard]] double to_double(const char* text) noexcept;

/// As atoi(); a number that no int holds gives INT_MIN.
[[nodiscard]] int to_int(const char* text) noexcept;

/// A whole number in decimal.
template <typename Integer>
std::string decimal(Integer number) {
    std::array<char, 24> digits{};  // enough for 64 bits and a sign
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return {digits.data(), end};
}

/// `value` cut to a whole number toward zero; what no int holds, NaN included, gives INT_MIN, which
/// no time and no frequency can be.
[[nodiscard]] constexpr int truncate_to_int(double value) noexcept {
    const bool fits = value > -2147483649.0 && value < 2147483648.0;
    return fits ? static_cast<int>(value) : INT_MIN;
}

/// White space, digits and letters of ASCII: what isspace() and friends answer in the "C" locale,
/// defined for every char.
[[nodiscard]] constexpr bool is_space(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
[[nodiscard]] constexpr bool is_digit(char c) noexcept {
    return c >= '0' && c <= '9';
}
[[nodiscard]] constexpr char to_lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Appends a formatted text, cut to `limit` - 1 characters (at most 1023), with a decimal point.
[[gnu::format(printf, 3, 4)]] void append_formatted(std::string& out, std::size_t limit,
                                                    const char* format, ...);

/// Gives the calling thread the "C" locale for the length of a block.
class CLocaleScope {
  public:
    CLocaleScope() noexcept;
    ~CLocaleScope();
    CLocaleScope(const CLocaleScope&) = delete;
    CLocaleScope& operator=(const CLocaleScope&) = delete;

  private:
    locale_t previous_;
};

}  // namespace eas
