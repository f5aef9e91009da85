#include "tools/easctl/doctor/TagLinks.h"

#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/history/Drift.h"
#include "tools/easctl/tag/TagOrigin.h"
#include "tools/easctl/tag/TagTable.h"

namespace easctl {
namespace {

/// A look that takes seconds is enough; tag list looks at all.
constexpr std::size_t most_tags = 20'000;
struct Enough {};

}  // namespace

Link tags_of_model(Database& database, const std::string& cluster, const CoEfficients& model) {
    const std::string name = "tags of " + cluster;
    TagTable table(database, cluster, model.getDefaultFrequency());
    std::size_t seen = 0;
    std::size_t others = 0;
    try {
        table.for_each("", "", [&](const EnergyTag& tag) {
            others += origin_of(tag, model) == TagOrigin::other_model ? 1 : 0;
            if (++seen == most_tags)
                throw Enough();
        });
    } catch (const Enough&) {
    }
    const std::string all =
        (seen == most_tags ? "the first " : "") + std::to_string(seen) + " tags";
    if (seen == 0)
        return {name, LinkStatus::ok, "none yet", "", ""};
    if (others == 0)
        return {name, LinkStatus::ok, all + ", all by the present model", "", ""};
    return {
        name, LinkStatus::warning,
        std::to_string(others) + " of " + all + " were made by another model",
        "frequencies are selected by what that one predicted",
        "easctl tag regenerate --before-model --jobs RUNS, or easctl tag remove --before-model"};
}

Link drift_of_tags(const RunOptions& runs, Globals& globals) {
    const std::string name = "drift";
    Drift drift{DriftLimits()};
    RunSource source(globals, runs);
    for (Run run; source.next(run);)
        drift.add(run);
    source.hide_progress();
    const auto counts = drift.counts();
    const std::size_t stale = counts[static_cast<std::size_t>(DriftState::stale)];
    const DriftVerdict model = drift.model();
    const std::string found = std::to_string(stale) + " of " + std::to_string(drift.tags().size()) +
                              " tags stale by " + std::to_string(source.counts().runs) + " runs";
    if (model.state == DriftState::stale)
        return {name, LinkStatus::warning,
                found + "; tags of different users miss the energy by " +
                    signed_percent(model.energy_miss.value_or(0), 1) + " % and the time by " +
                    signed_percent(model.time_miss.value_or(0), 1) + " %",
                "the model no longer describes the nodes",
                "easctl model calibrate, fit and import --replace"};
    if (stale > 0)
        return {name, LinkStatus::warning, found, "their jobs are not what they were",
                "easctl drift names them; easctl tag remove --stale --runs RUNS has them measured "
                "anew"};
    return {name, LinkStatus::ok, found, "", ""};
}

}  // namespace easctl
