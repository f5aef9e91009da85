#include "tools/easctl/history/RunSums.h"

#include <algorithm>
#include <cmath>

#include "tools/easctl/history/RunSource.h"

namespace easctl {
namespace {

std::optional<double> change_pct(double after, double before) {
    return before > 0.0 ? std::optional(100.0 * (after / before - 1.0)) : std::nullopt;
}

}  // namespace

void MissSpread::add(double miss, double runs) {
    const double bin = std::ceil(std::fabs(miss) * 100.0 * bins_per_pct);
    const auto last = static_cast<double>(bins_.size() - 1);
    // Bin i holds what lies within i half percents; NaN goes to the last one.
    const auto place = static_cast<std::size_t>(bin <= last ? std::max(bin, 1.0) - 1.0 : last);
    bins_[place] += runs;
    count_ += runs;
}

void MissSpread::add(const MissSpread& other) {
    for (std::size_t i = 0; i < bins_.size(); ++i)
        bins_[i] += other.bins_[i];
    count_ += other.count_;
}

std::optional<double> MissSpread::within_pct(double part) const {
    double below = 0;
    for (std::size_t i = 0; i + 1 < bins_.size() && count_ > 0; ++i) {
        below += bins_[i];
        if (below >= part * count_)
            return static_cast<double>(i + 1) / bins_per_pct;
    }
    return std::nullopt;
}

void Pair::add(const Run& run, double joules, double seconds) {
    const double times = run.runs();
    runs += times;
    measured_j += times * *run.joules;
    measured_s += times * *run.seconds;
    predicted_j += times * joules;
    predicted_s += times * seconds;
}

void Pair::add(const Pair& other) {
    runs += other.runs;
    measured_j += other.measured_j;
    measured_s += other.measured_s;
    predicted_j += other.predicted_j;
    predicted_s += other.predicted_s;
}

std::optional<double> Pair::saved_pct() const {
    const auto change = change_pct(measured_j, predicted_j);
    return change ? std::optional(-*change) : change;
}

std::optional<double> Pair::added_pct() const {
    return change_pct(measured_s, predicted_s);
}

void RunSums::add(const Run& run) {
    runs += run.runs();
    if (run.outcome == "failed")
        failed_runs += run.runs();
    if (!run.is_measured())
        return;
    measured_runs += run.runs();
    energy_j += run.runs() * *run.joules;
    time_s += run.runs() * *run.seconds;
    if (run.can_be_compared())
        compared.add(run, *run.default_joules, *run.default_seconds);
    if (run.is_used() && run.can_be_checked()) {
        checked.add(run, *run.predicted_joules, *run.predicted_seconds);
        energy_miss.add(*run.joules / *run.predicted_joules - 1.0, run.runs());
        time_miss.add(*run.seconds / *run.predicted_seconds - 1.0, run.runs());
    }
}

void RunSums::add(const RunSums& other) {
    runs += other.runs;
    failed_runs += other.failed_runs;
    measured_runs += other.measured_runs;
    energy_j += other.energy_j;
    time_s += other.time_s;
    compared.add(other.compared);
    checked.add(other.checked);
    energy_miss.add(other.energy_miss);
    time_miss.add(other.time_miss);
}

std::optional<bool> RunSums::saving_exceeds_miss() const {
    const auto saved = compared.saved_pct();
    const auto missed = checked.saved_pct();  // what was predicted but not measured
    if (!saved || !missed)
        return std::nullopt;
    return std::fabs(*saved) > std::fabs(*missed);
}

std::string RunGroups::name_of(const Run& run) const {
    const auto or_none = [](const std::string& name) { return name.empty() ? no_name : name; };
    switch (by_) {
        case GroupBy::month:
            return run.when() ? day_of(*run.when(), true) : no_name;
        case GroupBy::user:
            return or_none(run.user);
        case GroupBy::tag:
            return run.tag.empty() ? no_name : run.user + "/" + run.tag;
        case GroupBy::job_class:
            return or_none(run.job_class);
        case GroupBy::policy:
            return or_none(run.policy);
    }
    return no_name;
}

void RunGroups::add(const Run& run) {
    const std::string name = name_of(run);
    auto found = groups_.find(name);
    if (found == groups_.end())
        found = groups_.try_emplace(groups_.size() < most_groups ? name : other_groups).first;
    found->second.add(run);
}

RunSums RunGroups::total() const {
    RunSums total;
    for (const auto& [name, sums] : groups_)
        total.add(sums);
    return total;
}

}  // namespace easctl
