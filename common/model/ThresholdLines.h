// The grammar of a threshold file's single lines, which are trimmed and hold no comment.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/model/ThresholdListener.h"

class EnergyPerfThreshold;

namespace eas {

/// Whether a line begins with a keyword, in letters of either case.
[[nodiscard]] bool matches_keyword(std::string_view line, std::string_view keyword);

/// A line of the energy section; `percent` counts with the verdict `limit`.
struct LimitLine {
    LineVerdict verdict;
    double percent;
    std::string text;  // what the verdict is about
};
[[nodiscard]] LimitLine read_limit(const std::string& line);

/// A set's frequencies, in order, so that a line costs no walk over them.
class KnownFrequencies {
  public:
    explicit KnownFrequencies(const CoEfficients& set);

    [[nodiscard]] int default_frequency() const { return default_; }

    /// `demand` for a frequency that may be given a value; `freq` is not meaningful otherwise.
    LineVerdict read(const EnergyPerfThreshold& reader, const std::string& text, int& freq) const;

  private:
    int default_;
    std::vector<int> sorted_;
};

/// The first line of the time section.
[[nodiscard]] bool is_time_header(const std::string& line);

/// Another line of it; `percent` counts with the verdict `demand`.
struct DemandLine {
    LineVerdict verdict;
    int frequency;  // kHz
    double percent;
    std::string text;
};
[[nodiscard]] DemandLine read_demand(const EnergyPerfThreshold& reader, const std::string& line,
                                     const KnownFrequencies& known);

}  // namespace eas
