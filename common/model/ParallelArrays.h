// Rows kept as parallel arrays, entry i of each array belonging to row i.
#pragma once

#include <cstddef>
#include <vector>

namespace eas {

template <typename T>
[[gnu::noinline]] void grow(std::vector<T>& array) {
    constexpr std::size_t first_rows = 16;  // what most clusters' processors offer
    array.reserve(array.empty() ? first_rows : 2 * array.size());
}

template <typename T>
void make_room(std::vector<T>& array) {
    if (array.size() == array.capacity())
        grow(array);
}

/// Makes room for one more row in every array, so that appending one cannot fail half-way: when
/// memory is short this throws, and the arrays still have equal lengths.
template <typename... Arrays>
void make_room_for_row(Arrays&... arrays) {
    (make_room(arrays), ...);
}

}  // namespace eas
