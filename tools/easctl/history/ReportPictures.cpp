#include "tools/easctl/history/ReportPictures.h"

#include <algorithm>
#include <cmath>

#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/history/RunSource.h"
#include "tools/easctl/history/Svg.h"

namespace easctl {
namespace {

constexpr std::size_t most_days = 5000;
constexpr std::size_t most_bars = 62;
constexpr std::size_t most_points = 800;
constexpr std::size_t most_tags = 40;
constexpr std::size_t most_names = 12;
constexpr double widest_miss = 0.5;  // what lies beyond is drawn at the edge

std::map<std::string, Pair> by_month(const std::map<std::string, Pair>& days) {
    std::map<std::string, Pair> months;
    for (const auto& [day, pair] : days)
        months[day.substr(0, 7)].add(pair);
    return months;
}

double kwh(double joules) {
    return joules / joules_per_kwh;
}

}  // namespace

void ReportPictures::add(const Run& run) {
    if (run.can_be_compared()) {
        tags_.add(run);
        const std::string day = run.when() ? day_of(*run.when()) : std::string();
        if (!day.empty() && (days_.size() < most_days || days_.count(day) != 0))
            days_[day].add(run, *run.default_joules, *run.default_seconds);
    }
    if (run.is_used() && run.can_be_checked())
        draw_lot({*run.predicted_joules, *run.joules / *run.predicted_joules - 1.0});
}

/// Each run has the same chance to be in the sample.
void ReportPictures::draw_lot(const Checked& checked) {
    ++checked_;
    if (sample_.size() < most_points) {
        sample_.push_back(checked);
        return;
    }
    const std::uint64_t place = lots_() % checked_;
    if (place < most_points)
        sample_[place] = checked;
}

std::string ReportPictures::savings_over_time() const {
    if (days_.empty())
        return {};
    const auto bars = days_.size() > most_bars ? by_month(days_) : days_;
    double low = 0, high = 0;
    for (const auto& [day, pair] : bars) {
        low = std::min(low, kwh(pair.saved_j()));
        high = std::max(high, kwh(pair.saved_j()));
    }
    const auto count = static_cast<double>(bars.size());
    Picture picture("saved energy over time", Scale(0, count), Scale(low, high), false);
    const Scale across(0, count);
    const double unit = across.ticks().back() / count;  // the scale is widened, the bars fill it
    const std::size_t step = (bars.size() + 9) / 10;
    std::size_t i = 0;
    for (const auto& [day, pair] : bars) {
        const double from = static_cast<double>(i) * unit;
        picture.bar(from + 0.12 * unit, from + 0.88 * unit, 0, kwh(pair.saved_j()),
                    pair.saved_j() < 0 ? "b" : "a",
                    day + ": " + number(kwh(pair.saved_j()), 3) + " kWh, " + number(pair.runs, 0) +
                        " runs");
        if (i++ % step == 0)
            picture.below(from + 0.5 * unit, day.size() > 7 ? day.substr(5) : day);
    }
    picture.axis_names(days_.size() > most_bars ? "month" : "day", "kWh predicted minus measured");
    return picture.svg();
}

std::string ReportPictures::predicted_against_measured() const {
    if (sample_.empty())
        return {};
    double low = sample_[0].predicted_j, high = low, widest = 0.05;
    for (const Checked& one : sample_) {
        low = std::min(low, one.predicted_j);
        high = std::max(high, one.predicted_j);
        widest = std::max(widest, std::min(std::fabs(one.miss), widest_miss));
    }
    // Energies of runs differ by decades.
    const Scale across(std::floor(std::log10(kwh(low))), std::ceil(std::log10(kwh(high))));
    Picture picture("measured against predicted energy", across, Scale(-100 * widest, 100 * widest),
                    false);
    for (double decade = across.ticks().front(); decade <= across.ticks().back(); ++decade)
        picture.below(decade, exact(std::pow(10.0, decade)));
    for (const Checked& one : sample_) {
        const double shown = std::clamp(one.miss, -widest_miss, widest_miss);
        picture.point(std::log10(kwh(one.predicted_j)), 100 * shown, 2.5, "dot", "");
    }
    picture.axis_names("kWh predicted for the run", "measured against predicted, %");
    return picture.svg();
}

std::string ReportPictures::trade_off() const {
    using Tag = std::pair<std::string, Pair>;
    std::vector<Tag> tags;
    for (const auto& [name, sums] : tags_.groups())
        tags.emplace_back(name, sums.compared);
    const auto larger = [](const Tag& a, const Tag& b) {
        return a.second.measured_j > b.second.measured_j;
    };
    std::sort(tags.begin(), tags.end(), larger);
    tags.resize(std::min(tags.size(), most_tags));
    if (tags.empty())
        return {};
    double left = 0, right = 0, low = 0, high = 0;
    for (const auto& [name, pair] : tags) {
        left = std::min(left, pair.added_pct().value_or(0));
        right = std::max(right, pair.added_pct().value_or(0));
        low = std::min(low, pair.saved_pct().value_or(0));
        high = std::max(high, pair.saved_pct().value_or(0));
    }
    const double largest = std::sqrt(tags[0].second.measured_j);
    Picture picture("trade-off per tag", Scale(left, right), Scale(low, high), true);
    std::size_t named = 0;
    for (const auto& [name, pair] : tags) {
        const double x = pair.added_pct().value_or(0), y = pair.saved_pct().value_or(0);
        const double radius = 3.0 + 8.0 * std::sqrt(pair.measured_j) / largest;
        picture.point(x, y, radius, "ring",
                      name + ": " + number(pair.runs, 0) + " runs, " + signed_number(y, 2) +
                          " % energy saved, " + signed_number(x, 2) + " % time added");
        if (named++ < most_names)
            picture.text(x, y, radius + 2.0, name.substr(0, 24));
    }
    picture.axis_names("time added, %", "energy saved, %");
    return picture.svg();
}

}  // namespace easctl
