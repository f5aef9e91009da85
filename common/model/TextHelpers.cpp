#include "common/model/TextHelpers.h"

#include <array>
#include <cstring>

#include "base/Numbers.h"

using eas::is_digit;
using eas::is_space;
using eas::to_lower;

namespace {

const char* skip_digits(const char* p) {
    while (is_digit(*p))
        ++p;
    return p;
}

/// Past the leading blanks, the sign or first digit and the digits after it; null without them.
const char* skip_whole_number(const char* p) {
    if (p == nullptr)
        return nullptr;
    while (*p == ' ')
        ++p;
    if (*p != '-' && *p != '+' && !is_digit(*p))
        return nullptr;
    return skip_digits(p + 1);
}

}  // namespace

char* ltrunc(char* str) {
    if (str == nullptr)
        return nullptr;
    std::size_t length = std::strlen(str);
    while (length > 0 && is_space(str[length - 1]))
        --length;
    str[length] = '\0';
    while (is_space(*str))
        ++str;
    return str;
}

int isfloat(const char* p) {
    p = skip_whole_number(p);
    if (p == nullptr)
        return 0;
    if (*p == '.')
        p = skip_digits(p + 1);
    return *p == '\0' ? 1 : 0;
}

int isint(const char* p) {
    p = skip_whole_number(p);
    return p != nullptr && *p == '\0' ? 1 : 0;
}

int compareSection(const std::string& input, const std::string& stand) {
    return eas::compare_section(input, stand);
}

int eas::compare_section(std::string_view input, std::string_view stand) noexcept {
    if (input.empty() || stand.empty())
        return -1;
    while (!input.empty() && is_space(input.back()))
        input.remove_suffix(1);
    while (!input.empty() && is_space(input.front()))
        input.remove_prefix(1);
    if (input.size() < 2)
        return -1;  // a single character is no keyword
    for (const char expected : stand) {
        if (input.empty())
            return -1;
        if (is_space(expected)) {
            if (!is_space(input.front()))
                return -2;
            while (!input.empty() && is_space(input.front()))
                input.remove_prefix(1);
        } else {
            if (to_lower(input.front()) != to_lower(expected))
                return -3;
            input.remove_prefix(1);
        }
    }
    return 0;
}

int stricmp(const char* s1, const char* s2) {
    if (s1 == nullptr)
        s1 = "";
    if (s2 == nullptr)
        s2 = "";
    while (*s1 != '\0' && to_lower(*s1) == to_lower(*s2)) {
        ++s1;
        ++s2;
    }
    return static_cast<unsigned char>(to_lower(*s1)) - static_cast<unsigned char>(to_lower(*s2));
}

int blankline(const char* str) {
    while (str != nullptr && is_space(*str))
        ++str;
    return str == nullptr || *str == '\0' ? 1 : 0;
}

char* my_getline(std::FILE* fp) {
    static std::array<char, 57344> buffer;
    buffer.fill('\0');
    if (fp == nullptr)
        return nullptr;
    char* const end = buffer.data() + buffer.size();
    char* last_piece = nullptr;
    char* at = buffer.data();
    // Full when nothing but the backslash and the terminating zero would fit.
    while (end - at > 2) {
        if (std::fgets(at, static_cast<int>(end - at), fp) == nullptr)
            return last_piece;
        last_piece = at;
        const char* text = ltrunc(at);
        const std::size_t length = std::strlen(text);
        std::memmove(at, text, length + 1);
        if (length == 0 || at[length - 1] != '\\')
            return buffer.data();
        at += length - 1;
    }
    return nullptr;
}
