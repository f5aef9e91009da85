// Properties files.
#include "db/base_class/Properties.h"
#include "fuzz/Fuzz.h"

using eas::fuzz::check;

namespace {

void check_word(std::string_view word, std::string_view text) {
    constexpr std::size_t longest_line = 255;
    check(word.size() < longest_line, "a line's length bounds what it holds");
    check(text.find(word) != std::string_view::npos, "what is read stands in the file");
    check(word.empty() || (word.front() != ' ' && word.back() != ' '), "no blanks around it");
    check(word.find('\n') == std::string_view::npos, "one line at a time");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text = eas::fuzz::text_of(data, size);
    Properties properties;
    const bool accepted = properties.parse(eas::fuzz::stream_of(text).get());
    const auto map = properties.getPropertiesMap();
    check(accepted || map.empty(), "a refused file adds nothing");
    for (const auto& [key, value] : map) {
        check_word(key, text);
        check_word(value, text);
        check(key.find('=') == std::string::npos, "the first = ends the key");
    }
    if (text.empty() || text.back() != '\n')
        return 0;
    text += "unfinished=line";
    Properties longer;
    longer.parse(eas::fuzz::stream_of(text).get());
    check(longer.getPropertiesMap() == map, "a last line without its newline does not count");
    return 0;
}
