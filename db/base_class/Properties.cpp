#include "db/base_class/Properties.h"

#include <array>
#include <string_view>

#include "base/UniqueFile.h"
#include "db/base_class/DBTracer.h"

namespace {

constexpr std::size_t longest_line = 255;

/// Reads a line without its newline; false once the read comes to the end of the file.
bool read_line(std::FILE* file, std::string& line) {
    std::array<char, longest_line + 1> buffer{};
    const bool read = std::fgets(buffer.data(), int{buffer.size()}, file) != nullptr;
    std::string_view text = buffer.data();
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    line = text;
    return read && std::feof(file) == 0;
}

/// Without the blanks around it; only the space character is one.
std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace

Properties::Properties(const char* file) {
    const eas::UniqueFile opened = eas::open_for_reading(file);
    const char* name = file != nullptr ? file : "(nil)";
    if (opened == nullptr)
        eas::trace(eas::severity_error, "Cannot open properties file %s\n", name);
    else if (!parse(opened.get()))
        eas::trace(eas::severity_error, "Invalid properties file %s specified\n", name);
}

bool Properties::parse(std::FILE* file) {
    std::string line;
    bool complete = read_line(file, line);
    if (std::string_view(line).find('=') == std::string_view::npos)
        return false;
    for (; complete; complete = read_line(file, line)) {
        const std::string_view text = line;
        const std::size_t equals = text.find('=');
        if (equals == std::string_view::npos)
            continue;
        setProperties(std::string(trimmed(text.substr(0, equals))),
                      std::string(trimmed(text.substr(equals + 1))));
    }
    return true;
}
