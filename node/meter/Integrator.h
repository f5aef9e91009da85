// Power readings integrated over time, by trapezoids. The library starts no thread: whoever reads
// the meter samples the power. One thread at a time.
#pragma once

#include <string>

#include "node/meter/Source.h"

namespace eas::node {

/// Between readings further apart than this the power is anybody's guess.
constexpr Nanoseconds longest_gap = 60'000'000'000;

class Integrator {
  public:
    void start(Nanoseconds now, double watts) noexcept {
        first_ = last_ = now;
        watts_ = watts;
        samples_ = 1;
    }

    /// Takes a reading into account. False when it comes too late.
    [[nodiscard]] bool add(Nanoseconds now, double watts) noexcept;

    [[nodiscard]] double joules() const noexcept { return joules_; }

    /// "WHAT, integrated from 12 samples every 1.0 s", with a warning where the edges weigh much.
    [[nodiscard]] std::string words(const char* what) const;

  private:
    Nanoseconds first_ = 0;
    Nanoseconds last_ = 0;
    double watts_ = 0;
    double joules_ = 0;
    unsigned long samples_ = 0;
};

}  // namespace eas::node
