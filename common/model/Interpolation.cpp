#include "common/model/Interpolation.h"

namespace eas {

bool Interpolation::fill_gaps() {
    std::vector<bool> known;
    known.reserve(frequencies_.size());
    for (const int f : frequencies_)
        known.push_back(values_.count(f) > 0);

    bool in_gap = false;
    std::size_t lo = 0;  // the last known position before the gap
    for (std::size_t k = 0; k < frequencies_.size(); ++k) {
        if (!known[k] && !in_gap) {
            if (k == 0)
                return false;
            in_gap = true;
            lo = k - 1;
        } else if (known[k] && in_gap) {
            in_gap = false;
            fill_between(lo, k);
        }
    }
    return !in_gap || extend_from(lo);
}

/// Writes the positions after `start`, up to `last`.
void Interpolation::write_line(std::size_t start, std::size_t last, double base) {
    for (std::size_t t = 1; t <= last - start; ++t)
        at(start + t) = static_cast<double>(t) * slope_ + base;
}

void Interpolation::fill_between(std::size_t lo, std::size_t hi) {
    const double v_lo = at(lo);
    slope_ = (at(hi) - v_lo) / static_cast<double>(hi - lo);
    write_line(lo, hi, v_lo);
    base_ = at(hi);
}

bool Interpolation::extend_from(std::size_t lo) {
    // A slope that climbs goes on from the end of the gap it was found in, wherever `lo` is: sites
    // rely on the thresholds that this gives.
    if (slope_ < 1e-7) {
        if (lo == 0)
            return false;
        slope_ = at(lo) - at(lo - 1);
        base_ = at(lo);
    }
    write_line(lo, frequencies_.size() - 1, base_);
    return true;
}

}  // namespace eas
