#include "tools/easctl/history/Drift.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>

namespace easctl {
namespace {

constexpr double false_alarm = 0.005;    // at a true median miss of just the limit, each test
constexpr std::size_t latest = 8;        // the fewest that the test can tell from chance
constexpr std::size_t fewest_runs = 5;   // for a tag to speak for the model
constexpr std::size_t tags_of_user = 3;  // that do
constexpr std::size_t fewest_users = 3;

/// How likely `hits` or more of `count` tosses of a coin are heads.
double chance_of(std::size_t count, std::size_t hits) {
    double term = std::pow(0.5, static_cast<double>(count));
    double sum = 0.0;
    for (std::size_t k = 0; k <= count; ++k) {
        if (k >= hits)
            sum += term;
        term *= static_cast<double>(count - k) / static_cast<double>(k + 1);
    }
    return sum;
}

bool is_off(const std::vector<double>& misses, double limit) {
    for (const double sign : {1.0, -1.0}) {
        const auto hits = std::count_if(misses.begin(), misses.end(),
                                        [&](double miss) { return sign * miss > limit; });
        if (chance_of(misses.size(), static_cast<std::size_t>(hits)) <= false_alarm)
            return true;
    }
    return false;
}

std::optional<double> median(std::vector<double> values) {
    if (values.empty())
        return std::nullopt;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2.0;
}

}  // namespace

void DriftLimits::add_to(CLI::App& command) {
    const auto add = [&](const char* name, double& limit, const char* description) {
        add_option(command, name, description,
                   [&limit](const std::string& text) { limit = std::stod(text) / 100.0; })
            .check(number_from(0.0, 100.0))
            .type_name("PERCENT");
    };
    add("--tag-limit", tag_miss,
        "a tag is stale when its last runs miss by more, in energy or time (default: 10)");
    add("--model-limit", model_miss,
        "the model drifts when the tags of different users miss by more (default: 5)");
}

const char* name_of(DriftState state) noexcept {
    switch (state) {
        case DriftState::too_few:
            return "too few runs";
        case DriftState::fits:
            return "fits";
        case DriftState::stale:
            return "stale";
    }
    return "unknown";
}

DriftVerdict test_drift(const std::vector<double>& energy, const std::vector<double>& time,
                        double limit) {
    DriftVerdict verdict{DriftState::fits, energy.size(), median(energy), median(time)};
    if (chance_of(energy.size(), energy.size()) > false_alarm)
        verdict.state = DriftState::too_few;
    else if (is_off(energy, limit) || is_off(time, limit))
        verdict.state = DriftState::stale;
    return verdict;
}

void TagDrift::add(double energy_miss, double time_miss) {
    energy_[count_ % window] = static_cast<float>(energy_miss);
    time_[count_ % window] = static_cast<float>(time_miss);
    ++count_;
}

/// All that is known, or the latest eight alone, so that a change is not hidden by the runs before
/// it.
DriftVerdict TagDrift::verdict(double limit) const {
    std::vector<double> energy;
    std::vector<double> time;
    for (std::size_t i = count_ - count(); i < count_; ++i) {
        energy.push_back(static_cast<double>(energy_[i % window]));
        time.push_back(static_cast<double>(time_[i % window]));
    }
    DriftVerdict all = test_drift(energy, time, limit);
    if (all.state != DriftState::fits || energy.size() <= latest)
        return all;
    const auto before = static_cast<std::ptrdiff_t>(energy.size() - latest);
    const DriftVerdict late = test_drift({energy.begin() + before, energy.end()},
                                         {time.begin() + before, time.end()}, limit);
    return late.state == DriftState::stale ? late : all;
}

void Drift::add(const Run& run) {
    if (run.tag.empty())
        return;
    const Key key{run.user, run.tag};
    auto found = tags_.find(key);
    if (found == tags_.end()) {
        if (tags_.size() >= most_tags)
            return;
        found = tags_.try_emplace(key).first;
    }
    if (run.outcome == "measured")
        found->second.forget();
    else if (run.is_used() && run.can_be_checked())
        found->second.add(*run.joules / *run.predicted_joules - 1.0,
                          *run.seconds / *run.predicted_seconds - 1.0);
}

DriftVerdict Drift::verdict(const std::string& user, const std::string& tag) const {
    const auto found = tags_.find({user, tag});
    return found == tags_.end() ? DriftVerdict() : verdict(found->second);
}

DriftVerdict Drift::model() const {
    std::map<std::string, std::vector<const TagDrift*>> users;
    for (const auto& [key, tag] : tags_) {
        if (tag.count() >= fewest_runs)
            users[key.first].push_back(&tag);
    }
    std::vector<double> energy;
    std::vector<double> time;
    for (auto& [user, tags] : users) {
        std::stable_sort(tags.begin(), tags.end(), [](const TagDrift* a, const TagDrift* b) {
            return a->count() > b->count();
        });
        tags.resize(std::min(tags.size(), tags_of_user));
        for (const TagDrift* tag : tags) {
            const DriftVerdict one = verdict(*tag);
            energy.push_back(one.energy_miss.value_or(0.0));
            time.push_back(one.time_miss.value_or(0.0));
        }
    }
    DriftVerdict verdict = test_drift(energy, time, limits_.model_miss);
    if (users.size() < fewest_users)
        verdict.state = DriftState::too_few;
    return verdict;
}

std::array<std::size_t, 3> Drift::counts() const {
    std::array<std::size_t, 3> counts{};
    for (const auto& [key, tag] : tags_)
        ++counts[static_cast<std::size_t>(verdict(tag).state)];
    return counts;
}

}  // namespace easctl
