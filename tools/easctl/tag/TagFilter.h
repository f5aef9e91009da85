// Which tags a command means, by what can be said of them: their age, the model that made them, and
// what became of the runs that used them.
#pragma once

#include <optional>
#include <string>

#include "common/model/EnergyTag.h"
#include "tools/easctl/cli/Command.h"
#include "tools/easctl/history/Drift.h"
#include "tools/easctl/history/RunSource.h"
#include "tools/easctl/tag/TagOrigin.h"

namespace easctl {

struct TagFilterOptions {
    std::string older_than;
    bool before_model = false;
    bool stale = false;
    bool unused = false;
    RunOptions runs;
    DriftLimits limits;

    /// Adds --older-than, --before-model, --stale, --unused, and --runs with its period.
    void add_to(CLI::App& command);
    /// Whether any of the first four is given.
    [[nodiscard]] bool chooses() const {
        return !older_than.empty() || before_model || stale || unused;
    }
};

/// What can be said of a tag.
struct TagFacts {
    TagOrigin origin = TagOrigin::unclear;
    std::optional<DriftVerdict> drift;  // no value where no runs were given
    bool used = false;                  // by one of them
};

class TagFilter {
  public:
    /// Reads the runs, if there are any; throws Failure, also when the options need runs and none
    /// are given. `coeffs` must outlive this.
    TagFilter(Globals& globals, const TagFilterOptions& options, const CoEfficients& coeffs);

    [[nodiscard]] TagFacts facts(const EnergyTag& tag) const;
    [[nodiscard]] bool wants(const EnergyTag& tag, const TagFacts& facts) const;
    [[nodiscard]] bool has_runs() const { return drift_.has_value(); }

  private:
    TagFilterOptions options_;
    const CoEfficients& coeffs_;
    std::optional<Drift> drift_;
    std::optional<double> made_before_;  // s since 1970
};

}  // namespace easctl
