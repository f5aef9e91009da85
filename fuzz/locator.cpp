// Locator files.
#include <cstring>

#include "common/model/TextHelpers.h"
#include "fuzz/Fuzz.h"
#include "interface/Locator.h"

using eas::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text = eas::fuzz::text_of(data, size);
    const char* joined = my_getline(eas::fuzz::stream_of(text).get());
    const std::string line = joined != nullptr ? joined : "";
    const std::string name = eas::parse_locator(eas::fuzz::stream_of(text).get());
    if (name.empty())
        return 0;
    check(line.find(name) != std::string::npos, "the name stands in the line");
    check(name.find_first_of(":=;| ") == std::string::npos, "the name holds no separator");
    check(stricmp(line.substr(0, std::strlen("mysql")).c_str(), "mysql") == 0,
          "the line begins with its keyword");
    return 0;
}
