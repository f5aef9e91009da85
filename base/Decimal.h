// A whole number as text, whatever the locale.
#pragma once

#include <array>
#include <charconv>
#include <string>

namespace eas {

template <typename Integer>
std::string decimal(Integer number) {
    std::array<char, 24> digits{};  // enough for 64 bits and a sign
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return {digits.data(), end};
}

}  // namespace eas
