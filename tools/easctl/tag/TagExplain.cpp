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

    [[nodiscard]] bool is_chosen(const eas::TagRow& row) const {
        return row.frequency == choice.frequency;
    }
};

Candidate verdict(const eas::TagRow& row, Verdict verdict, std::string reason) {
    return {row.frequency, row.energy_change, row.time_change, verdict, std::move(reason)};
}

Candidate judge_by_energy(const Case& c, const eas::TagRow& row) {
    const int default_khz = c.tag.default_frequency();
    const bool saves = row.energy_change < 0.0;
    if (c.is_chosen(row) && !saves)
        return verdict(row, Verdict::selected, "the default: no other admitted one saves energy");
    if (!eas::is_energy_candidate(row, default_khz, c.thresholds)) {
        return verdict(row, Verdict::rejected,
                       row.frequency > default_khz
                           ? "above the default frequency"
                           : percent(row.time_change) + " slower, more than the limit");
    }
    if (c.is_chosen(row))
        return verdict(row, Verdict::selected, "saves most energy of those admitted");
    return verdict(
        row, Verdict::admitted,
        saves ? "but saves no more than " + ghz(c.choice.frequency) : "but saves no energy");
}

/// Of a row that may not be selected under minimize_time.
Candidate judge_rejected_by_time(const Case& c, const eas::TagRow& row) {
    if (c.is_chosen(row))
        return verdict(row, Verdict::selected, "the default: no other is admitted");
    if (row.frequency < c.tag.default_frequency())
        return verdict(row, Verdict::rejected, "below the default frequency");
    const auto& limits = c.thresholds.getThresValue();
    const auto limit = limits.find(row.frequency);
    if (limit == limits.end())
        return verdict(row, Verdict::rejected, "the thresholds hold no value for it");
    return verdict(row, Verdict::rejected,
                   "gains " + percent(-row.time_change) + ", but " + percent(-limit->second) +
                       " are demanded");
}

Candidate judge_by_time(const Case& c, const eas::TagRow& row) {
    const int default_khz = c.tag.default_frequency();
    if (!eas::is_time_candidate(row, default_khz, c.thresholds))
        return judge_rejected_by_time(c, row);
    if (!c.is_chosen(row))
        return verdict(row, Verdict::admitted, "but " + ghz(c.choice.frequency) + " is higher");
    const double demanded = -c.thresholds.getThresValue().at(row.frequency);
    return verdict(row, Verdict::selected,
                   row.frequency == default_khz
                       ? "the default: no higher one is admitted"
                       : "the highest admitted: gains the " + percent(demanded) + " demanded");
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
    for (const eas::TagRow& row : tag.rows())
        explanation.candidates.push_back(by_energy ? judge_by_energy(c, row)
                                                   : judge_by_time(c, row));
    return explanation;
}

}  // namespace easctl
