// A descriptor number in a table of the process. Owns nothing: the code of the table closes it.
#pragma once

namespace eas {

/// Used as an int; one that was never set is -1. All its bytes are 0 then, so that a table of them
/// needs no code and no page of the library's file when the library is loaded.
class FdSlot {
  public:
    constexpr FdSlot() noexcept = default;
    constexpr FdSlot(int fd) noexcept : next_number_(fd + 1) {}
    constexpr operator int() const noexcept { return next_number_ - 1; }

  private:
    int next_number_ = 0;
};

}  // namespace eas
