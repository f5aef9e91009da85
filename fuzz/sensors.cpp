// Texts of sensor files, against a conversion of the target's own.
#include <cerrno>
#include <charconv>
#include <string_view>

#include "common/node/EnergySensors.h"
#include "fuzz/Fuzz.h"

namespace {

constexpr std::size_t longest_text = 254;  // what one read of a sensor file delivers

bool is_hex_digit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// Decimal, hexadecimal after 0x, octal after 0; a sign negates modulo the type's range.
unsigned long expected_value(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
    text.remove_prefix(first != std::string_view::npos ? first : text.size());
    const bool negative = !text.empty() && text[0] == '-';
    if (negative || (!text.empty() && text[0] == '+'))
        text.remove_prefix(1);
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] | 0x20) == 'x' && is_hex_digit(text[2])) {
        base = 16;
        text.remove_prefix(2);
    } else if (!text.empty() && text[0] == '0') {
        base = 8;
    }
    unsigned long value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value, base).ec != std::errc{})
        return 0;
    return negative ? 0 - value : value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text = eas::fuzz::text_of(data, size).substr(0, longest_text);
    text.resize(text.find('\0') != std::string::npos ? text.find('\0') : text.size());
    errno = ERANGE;
    eas::fuzz::check(eas::parse_sensor_value(text.c_str()) == expected_value(text),
                     "a sensor's value is the number in front, or 0");
    return 0;
}
