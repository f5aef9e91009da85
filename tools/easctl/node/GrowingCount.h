// A count that only grows, as it is read again and again: of the energy meter, of an event.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace easctl {

class GrowingCount {
  public:
    /// An empty `reading` means that the count cannot be read now. A 0 after a higher value means
    /// the same: the meter's driver has gone.
    void read(std::optional<std::uint64_t> reading) {
        if (reading == 0U && latest_ > 0U)
            reading.reset();
        before_ = now_;
        now_ = reading;
        if (!std::exchange(begun_, true))
            first_ = reading;
        if (!reading)
            return;
        if (*reading < latest_) {  // started anew
            first_.reset();
            before_.reset();
        }
        latest_ = *reading;
    }

    /// Growth since the reading before, and since the first one; empty where it is not known.
    [[nodiscard]] std::optional<double> step() const { return since(before_); }
    [[nodiscard]] std::optional<double> whole() const { return since(first_); }

  private:
    [[nodiscard]] std::optional<double> since(const std::optional<std::uint64_t>& then) const {
        if (!now_ || !then)
            return std::nullopt;
        return static_cast<double>(*now_ - *then);
    }

    std::optional<std::uint64_t> first_, before_, now_;
    std::uint64_t latest_ = 0;  // that was read
    bool begun_ = false;
};

}  // namespace easctl
