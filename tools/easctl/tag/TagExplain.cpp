#include "tools/easctl/tag/TagExplain.h"

#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {

namespace {

std::string percent(double fraction) {
    return number(100.0 * fraction, 2) + " %";
}

/// What both policies need to give their reasons.
struct Case {
    const EnergyTag& tag;
    const EnergyPerfThreshold& thresholds;
    eas::FrequencyChoice choice;

    [[nodiscard]] int frequency(std::size_t i) const { return tag.frequency_array()[i]; }
    [[nodiscard]] double saving(std::size_t i) const { return tag.energy_saving_pct_array()[i]; }
    [[nodiscard]] double slower(std::size_t i) const { return tag.perf_degrad_pct_array()[i]; }
    [[nodiscard]] bool is_chosen(std::size_t i) const { return frequency(i) == choice.frequency; }
    [[nodiscard]] bool is_default(std::size_t i) const {
        return frequency(i) == tag.default_frequency();
    }
};

Candidate verdict(const Case& c, std::size_t i, Verdict verdict, std::string reason) {
    return {c.frequency(i), c.saving(i), c.slower(i), verdict, std::move(reason)};
}

Candidate judge_by_energy(const Case& c, std::size_t i) {
    if (c.is_chosen(i) && !(c.saving(i) < 0.0))
        return verdict(c, i, Verdict::selected, "the default: no other admitted one saves energy");
    if (!eas::is_energy_candidate(c.tag, i, c.thresholds)) {
        return verdict(c, i, Verdict::rejected,
                       c.frequency(i) > c.tag.default_frequency()
                           ? "above the default frequency"
                           : percent(c.slower(i)) + " slower, more than the limit");
    }
    if (c.is_chosen(i))
        return verdict(c, i, Verdict::selected, "saves most energy of those admitted");
    if (!(c.saving(i) < 0.0))
        return verdict(c, i, Verdict::admitted, "but saves no energy");
    return verdict(c, i, Verdict::admitted, "but saves no more than " + ghz(c.choice.frequency));
}

Candidate judge_by_time(const Case& c, std::size_t i) {
    const auto& limits = c.thresholds.getThresValue();
    const auto limit = limits.find(c.frequency(i));
    if (!eas::is_time_candidate(c.tag, i, c.thresholds)) {
        if (c.is_chosen(i))
            return verdict(c, i, Verdict::selected, "the default: no other is admitted");
        if (c.frequency(i) < c.tag.default_frequency())
            return verdict(c, i, Verdict::rejected, "below the default frequency");
        if (limit == limits.end())
            return verdict(c, i, Verdict::rejected, "the thresholds hold no value for it");
        return verdict(c, i, Verdict::rejected,
                       "gains " + percent(-c.slower(i)) + ", but " + percent(-limit->second) +
                           " are demanded");
    }
    if (c.is_chosen(i)) {
        return verdict(c, i, Verdict::selected,
                       c.is_default(i) ? "the default: no higher one is admitted"
                                       : "the highest admitted: gains the " +
                                             percent(-limit->second) + " demanded");
    }
    return verdict(c, i, Verdict::admitted, "but " + ghz(c.choice.frequency) + " is higher");
}

}  // namespace

Explanation explain(const EnergyTag& tag, std::string_view policy,
                    const EnergyPerfThreshold& thresholds) {
    const Case c{tag, thresholds, eas::select_frequency(tag, policy, thresholds)};
    Explanation explanation{c.choice, {}, {}};
    if (c.choice.frequency == 0)
        return explanation;
    const bool by_energy = policy == eas::minimize_energy;
    const std::string from = ghz(tag.default_frequency());
    explanation.rule =
        by_energy ? "least energy among the frequencies up to " + from + " that are at most " +
                        percent(thresholds.get_def_perf() / 100.0) + " slower"
                  : "the highest frequency from " + from + " up that gains the time demanded of it";
    for (std::size_t i = 0; i < tag.frequency_array().size(); ++i)
        explanation.candidates.push_back(by_energy ? judge_by_energy(c, i) : judge_by_time(c, i));
    return explanation;
}

}  // namespace easctl
