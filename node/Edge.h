// What every exported function does at the edge of the library: no exception and no cancellation
// passes, records are filled as far as their caller knows them.
#pragma once

#include <cxxabi.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

#include "base/CancelState.h"
#include "node/node.h"

namespace eas::node {

/// The return code of `call`, or what its exception stands for. A cancelled thread finishes it.
template <typename Call>
int at_the_edge(const Call& call) {
    const DeferCancellation until_done;
    try {
        return call();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return EASNODE_NO_MEMORY;  // nothing else is thrown inside
    }
}

/// Whether a caller's record holds at least what the first release of it had, `first_size` bytes.
template <typename Record>
bool is_record(const Record* record, std::size_t first_size = sizeof(Record)) {
    return record != nullptr && record->size >= first_size;
}

/// Copies a record as far as its caller knows it; its size stays.
template <typename Record>
void fill_record(Record* out, Record value) {
    value.size = out->size;
    std::memcpy(out, &value, std::min(out->size, sizeof(Record)));
}

/// Copies a text into an array that ends in NUL, cut to it.
template <std::size_t Size>
void fill_text(char (&out)[Size], std::string_view text) {
    const std::size_t length = std::min(text.size(), Size - 1);
    std::memcpy(out, text.data(), length);
    std::memset(out + length, 0, Size - length);
}

}  // namespace eas::node
