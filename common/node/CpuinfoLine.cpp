#include "common/node/CpuinfoLine.h"

#include <charconv>
#include <climits>
#include <system_error>

namespace eas {

namespace {

constexpr std::string_view blanks = " \t\n\v\f\r";

std::string_view without_leading_blanks(std::string_view text) noexcept {
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view{} : text.substr(first);
}

// What stands behind `key`, blanks and a colon; empty when the line is not of this form.
std::string_view behind_key(std::string_view line, std::string_view key) noexcept {
    if (!has_key(line, key))
        return {};
    const std::string_view rest = without_leading_blanks(line.substr(key.size()));
    if (rest.empty() || rest.front() != ':')
        return {};
    return without_leading_blanks(rest.substr(1));
}

bool parse_int(std::string_view text, int& value) noexcept {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-')
            return false;
    }
    int parsed = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (result.ec == std::errc::result_out_of_range) {
        parsed = text.front() == '-' ? INT_MIN : INT_MAX;
    } else if (result.ec != std::errc{}) {
        return false;
    }
    value = parsed;
    return true;
}

}  // namespace

bool has_key(std::string_view line, std::string_view key) noexcept {
    return line.substr(0, key.size()) == key;
}

bool parse_field(std::string_view line, std::string_view key, int& value) noexcept {
    return parse_int(behind_key(line, key), value);
}

bool parse_after_colon(std::string_view line, int& value) noexcept {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0)
        return false;
    return parse_int(without_leading_blanks(line.substr(colon + 1)), value);
}

std::string_view word_field(std::string_view line, std::string_view key) noexcept {
    const std::string_view rest = behind_key(line, key);
    return rest.substr(0, rest.find_first_of(blanks));
}

}  // namespace eas
