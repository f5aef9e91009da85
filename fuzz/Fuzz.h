// What the fuzz targets share: their input as text or as a stream, and properties that end the
// process when they do not hold, which the fuzzer records with the input that broke them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/FatalAssertion.h"
#include "base/UniqueFile.h"

// The entry point that libFuzzer calls for every input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace eas::fuzz {

inline void check(bool holds, const char* property, const char* file = __builtin_FILE(),
                  int line = __builtin_LINE()) {
    require_or_abort(holds, property, file, line);
}

inline std::string text_of(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// A stream that reads `text`, which must outlive it.
inline UniqueFile stream_of(std::string& text) {
    UniqueFile stream(::fmemopen(text.data(), text.size(), "r"));
    check(stream != nullptr, "a stream opens on memory");
    return stream;
}

/// The lines of `text` as fgets() with a buffer of `size` delivers them.
template <typename Take>
void for_each_line(std::string_view text, std::size_t size, const Take& take) {
    while (!text.empty()) {
        const std::size_t newline = text.substr(0, size - 1).find('\n');
        const std::size_t length = newline == std::string_view::npos ? size - 1 : newline + 1;
        take(text.substr(0, length));
        text.remove_prefix(length < text.size() ? length : text.size());
    }
}

}  // namespace eas::fuzz
