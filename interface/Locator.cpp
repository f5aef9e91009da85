#include "interface/Locator.h"

#include <unistd.h>

#include <cstring>

#include "base/UniqueFile.h"
#include "common/model/TextHelpers.h"

std::string get_dsn() {
    if (::access(cfgloc, F_OK) != 0 || ::access(cfgloc, R_OK) != 0)
        return {};
    const eas::UniqueFile file = eas::open_for_reading(cfgloc);
    return file ? eas::parse_locator(file.get()) : std::string();
}

namespace eas {

std::string parse_locator(std::FILE* file) {
    char* const line = my_getline(file);
    if (line == nullptr || blankline(line) != 0)
        return {};

    // The bar separates the key from the value, but not the keyword from the key.
    char* rest = nullptr;
    if (strtok_r(line, ":=; ", &rest) == nullptr)
        return {};
    const char* const key = strtok_r(nullptr, ":=;| ", &rest);
    // The line's start, not its first token: a line that begins with a separator has no keyword.
    if (key == nullptr || stricmp(line, "mysql") != 0)
        return {};
    const char* const value = strtok_r(nullptr, ":=;| ", &rest);
    if (value == nullptr || stricmp(key, "dbname") != 0)
        return {};
    return value;
}

}  // namespace eas
