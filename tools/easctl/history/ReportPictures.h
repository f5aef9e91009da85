// What the pictures of a report show, gathered in bounded memory.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tools/easctl/history/RunSums.h"

namespace easctl {

class ReportPictures {
  public:
    void add(const Run& run);

    // Each is one SVG element, or empty when there is no value to show.
    /// Saved energy (predicted minus measured) per day, or per month of a long time.
    [[nodiscard]] std::string savings_over_time() const;
    /// Energy measured against predicted, a point for each of some runs drawn at random.
    [[nodiscard]] std::string predicted_against_measured() const;
    /// What each of the largest tags saved, and what time that cost.
    [[nodiscard]] std::string trade_off() const;

  private:
    struct Checked {
        double predicted_j;
        double miss;  // fraction
    };
    void draw_lot(const Checked& checked);

    std::map<std::string, Pair> days_;
    std::vector<Checked> sample_;
    std::uint64_t checked_ = 0;
    std::mt19937_64 lots_{1};  // the same runs give the same page
    RunGroups tags_{GroupBy::tag};
};

}  // namespace easctl
