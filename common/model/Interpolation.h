// Fills the gaps of a time section: values are on the line between their neighbours, beyond the
// last two on the line through them.
#pragma once

#include <cstddef>
#include <map>
#include <vector>

namespace eas {

/// Position k is the k-th frequency from the default one up, as the set lists them.
class Interpolation {
  public:
    /// `values` (percent by kHz) is completed for the frequencies of `all` from `default_index` up.
    Interpolation(std::map<int, double>& values, const std::vector<int>& all, int default_index)
        : values_(values), frequencies_(all.begin() + default_index, all.end()) {}

    /// False when a gap has no end point to start from.
    bool fill_gaps();

  private:
    double& at(std::size_t position) { return values_[frequencies_[position]]; }
    void write_line(std::size_t start, std::size_t last, double base);
    void fill_between(std::size_t lo, std::size_t hi);
    bool extend_from(std::size_t lo);

    std::map<int, double>& values_;
    std::vector<int> frequencies_;
    double slope_ = 0.0;  // percent per position
    double base_ = 0.0;   // percent
};

}  // namespace eas
