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

/// The rows of a class that keeps them so, for a loop: `for (const auto row : owner.rows())`. The
/// owner gives row i by value as row(i), and outlives the range.
template <typename Owner>
class RowRange {
  public:
    RowRange(const Owner& owner, std::size_t count) : owner_(owner), count_(count) {}

    class Iterator {
      public:
        Iterator(const Owner& owner, std::size_t at) : owner_(&owner), at_(at) {}
        auto operator*() const { return owner_->row(at_); }
        Iterator& operator++() {
            ++at_;
            return *this;
        }
        bool operator!=(const Iterator& other) const { return at_ != other.at_; }

      private:
        const Owner* owner_;
        std::size_t at_;
    };

    [[nodiscard]] Iterator begin() const { return {owner_, 0}; }
    [[nodiscard]] Iterator end() const { return {owner_, count_}; }
    [[nodiscard]] std::size_t size() const { return count_; }

  private:
    const Owner& owner_;
    std::size_t count_;
};

}  // namespace eas
