#include "tools/easctl/tag/TagFilter.h"

#include <ctime>

namespace easctl {

void TagFilterOptions::add_to(CLI::App& command) {
    add_option(command, "--older-than", older_than, "only tags that were made so long ago: 90d, 2y")
        .check(some_text())
        .type_name("SPAN");
    add_flag(command, "--before-model", before_model,
             "only tags whose predictions are not those of the present model");
    add_flag(command, "--stale", stale, "only tags that their runs no longer fit (see drift)");
    add_flag(command, "--unused", unused, "only tags that none of the runs used");
    runs.add_to(command, "--runs");
    limits.add_to(command);
}

TagFilter::TagFilter(Globals& globals, const TagFilterOptions& options, const CoEfficients& coeffs)
    : options_(options), coeffs_(coeffs) {
    if (!options.older_than.empty())
        made_before_ = static_cast<double>(std::time(nullptr)) - parse_span(options.older_than);
    if (!options.runs.given()) {
        if (options.stale || options.unused)
            throw Failure(ExitCode::usage, "--stale and --unused are told by runs",
                          "give --runs FILE, or --from TIME to ask sacct");
        return;
    }
    drift_.emplace(options.limits);
    RunSource source(globals, options.runs);
    for (Run run; source.next(run);)
        drift_->add(run);
    source.finish(globals);
}

TagFacts TagFilter::facts(const EnergyTag& tag) const {
    TagFacts facts{origin_of(tag, coeffs_), {}, false};
    if (drift_) {
        facts.drift = drift_->verdict(tag.user_name(), tag.energy_tag_name());
        facts.used = drift_->has_run(tag.user_name(), tag.energy_tag_name());
    }
    return facts;
}

bool TagFilter::wants(const EnergyTag& tag, const TagFacts& facts) const {
    if (made_before_ && !(static_cast<double>(tag.create_time()) < *made_before_))
        return false;
    if (options_.before_model && facts.origin != TagOrigin::other_model)
        return false;
    if (options_.stale && facts.drift->state != DriftState::stale)
        return false;
    return !options_.unused || !facts.used;
}

}  // namespace easctl
