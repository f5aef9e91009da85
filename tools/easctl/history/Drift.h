// Whether tags, and the model behind them, still say what runs do.
//
// A tag is stale when its last runs (12, at least 8) missed the prediction by more than the limit,
// and so many of them in the same direction that for a tag whose true median miss is just the limit
// this comes by chance in at most one of 200 cases (a sign test: 8 of 8, 11 of 12). Energy and time
// are held against it, each in both directions. Neither the size of a miss nor the form of its
// distribution counts, so that one run with a broken meter is no alarm.
//
// The model drifts when the same test, with the tags' median misses in place of runs, finds that
// tags of different users miss in the same direction: at most three tags count for a user, and at
// least three users and eight tags are needed.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/easctl/cli/Options.h"
#include "tools/easctl/history/Run.h"

namespace easctl {

/// Fractions.
struct DriftLimits {
    double tag_miss = 0.10;
    double model_miss = 0.05;

    /// Adds --tag-limit and --model-limit, in percent.
    void add_to(CLI::App& command);
};

enum class DriftState { too_few, fits, stale };
const char* name_of(DriftState state) noexcept;

/// Energy and time of what was tested.
struct DriftVerdict {
    DriftState state = DriftState::too_few;
    std::size_t count = 0;              // of runs, or tags, that were tested
    std::optional<double> energy_miss;  // the median: by how much more was measured, a fraction
    std::optional<double> time_miss;
};

/// The test, of misses that are each a fraction.
DriftVerdict test_drift(const std::vector<double>& energy, const std::vector<double>& time,
                        double limit);

/// The last misses of one tag.
class TagDrift {
  public:
    static constexpr std::size_t window = 12;

    void add(double energy_miss, double time_miss);
    void forget() { count_ = 0; }
    [[nodiscard]] std::size_t count() const { return count_ < window ? count_ : window; }
    [[nodiscard]] DriftVerdict verdict(double limit) const;

  private:
    std::array<float, window> energy_{};
    std::array<float, window> time_{};
    std::size_t count_ = 0;
};

class Drift {
  public:
    using Key = std::pair<std::string, std::string>;  // user and tag
    /// Those of later tags are passed over, so that memory stays bounded.
    static constexpr std::size_t most_tags = 200'000;

    explicit Drift(const DriftLimits& limits) : limits_(limits) {}
    /// Takes a run in the order in which they ended. A run that made its tag anew starts it afresh.
    void add(const Run& run);

    [[nodiscard]] const std::map<Key, TagDrift>& tags() const { return tags_; }
    [[nodiscard]] DriftVerdict verdict(const TagDrift& tag) const {
        return tag.verdict(limits_.tag_miss);
    }
    /// Of a tag by its names; `too_few` when no run of it was seen.
    [[nodiscard]] DriftVerdict verdict(const std::string& user, const std::string& tag) const;
    [[nodiscard]] bool has_run(const std::string& user, const std::string& tag) const {
        return tags_.count({user, tag}) > 0;
    }
    [[nodiscard]] DriftVerdict model() const;
    /// How many tags are in which state.
    [[nodiscard]] std::array<std::size_t, 3> counts() const;
    [[nodiscard]] const DriftLimits& limits() const { return limits_; }

  private:
    DriftLimits limits_;
    std::map<Key, TagDrift> tags_;
};

}  // namespace easctl
