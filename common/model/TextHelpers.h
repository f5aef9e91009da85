// Small text helpers of the file readers. White space, digits and letters are those of ASCII,
// whatever the locale.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

/// Removes trailing white space in place; returns the first other character (null gives null).
char* ltrunc(char* str);

/// 1 for blanks, then a sign or a digit, then digits with at most one point among them, else 0.
/// A sign alone is enough; an exponent, a leading point and anything trailing are not.
int isfloat(const char* p);

/// The same without the point.
int isint(const char* p);

/// 0 when `input`, trimmed, begins with the keyword `stand`: letters in either case, a white-space
/// character of `stand` for any amount of it. Otherwise negative.
int compareSection(const std::string& input, const std::string& stand);

/// As strcmp with "A" to "Z" as lower case; null counts as empty.
int stricmp(const char* s1, const char* s2);

/// 1 when the text holds nothing but white space, else 0.
int blankline(const char* str);

/// Reads a line, trimmed, with the lines joined to it that a backslash at the end continues. A line
/// of the file that is longer than the room left in the buffer (57343 characters when empty) comes
/// in pieces, one per call. Null at the end of the file and when continued lines fill the buffer.
/// At an end of file that a backslash precedes, the last piece read. The result lies in a buffer
/// that every caller shares and the next call overwrites: not for two threads at once.
char* my_getline(std::FILE* fp);

namespace eas {

/// compareSection without a copy of either text.
[[nodiscard]] int compare_section(std::string_view input, std::string_view stand) noexcept;

}  // namespace eas
