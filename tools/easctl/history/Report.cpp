#include "tools/easctl/history/Report.h"

#include <cmath>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/history/RunSource.h"

namespace easctl {
namespace {

constexpr double kg = 1000.0;

std::string two_decimals(const std::optional<double>& value) {
    return value ? signed_number(*value, 2) : "";
}

std::string count_text(double runs) {
    return number(runs, 0);
}

/// The columns of a table have the same decimals, whatever stands in a row.
int decimals_for(double joules) {
    return joules < 1000.0 * joules_per_kwh ? 3 : 1;
}

std::vector<Cell> row_of(const std::string& name, const RunSums& sums, const Factors& factors,
                         int decimals) {
    const auto kwh = [decimals](double joules) {
        return number(joules / joules_per_kwh, decimals);
    };
    const Pair& pair = sums.compared;
    const bool any = pair.runs > 0;
    const double saved_kwh = pair.saved_j() / joules_per_kwh;
    std::vector<Cell> row{name,
                          count_text(sums.runs),
                          kwh(sums.energy_j),
                          count_text(pair.runs),
                          any ? kwh(pair.measured_j) : "",
                          any ? kwh(pair.predicted_j) : "",
                          any ? kwh(pair.saved_j()) : "",
                          two_decimals(pair.saved_pct()),
                          two_decimals(pair.added_pct())};
    if (factors.price)
        row.emplace_back(any ? number(saved_kwh * *factors.price, 2) : "");
    if (factors.co2_g)
        row.emplace_back(any ? number(saved_kwh * *factors.co2_g / kg, 2) : "");
    return row;
}

std::string within(const MissSpread& spread) {
    const auto half = spread.within_pct(0.5);
    const auto most = spread.within_pct(0.9);
    const auto text = [](const std::optional<double>& limit) {
        return limit ? "within " + number(*limit, 1) + " %" : std::string("beyond 100 %");
    };
    return "half of the runs " + text(half) + ", nine of ten " + text(most);
}

std::string part_of(double part, double whole) {
    return count_text(part) + " of " + count_text(whole);
}

Json as_json(const RunSums& sums, const Factors& factors) {
    const Pair& compared = sums.compared;
    const Pair& checked = sums.checked;
    const double saved_kwh = compared.saved_j() / joules_per_kwh;
    Json json{{"runs", sums.runs},
              {"failed_runs", sums.failed_runs},
              {"measured_runs", sums.measured_runs},
              {"energy_measured_j", sums.energy_j},
              {"time_measured_s", sums.time_s}};
    json["compared"] = {{"runs", compared.runs},
                        {"energy_measured_j", compared.measured_j},
                        {"default_energy_predicted_j", compared.predicted_j},
                        {"energy_saved_j", compared.saved_j()},
                        {"energy_saved_pct", compared.saved_pct()},
                        {"time_measured_s", compared.measured_s},
                        {"default_time_predicted_s", compared.predicted_s},
                        {"time_added_s", compared.added_s()},
                        {"time_added_pct", compared.added_pct()}};
    if (factors.price)
        json["compared"]["cost_saved"] = saved_kwh * *factors.price;
    if (factors.co2_g)
        json["compared"]["co2_saved_g"] = saved_kwh * *factors.co2_g;
    json["checked"] = {{"runs", checked.runs},
                       {"energy_measured_j", checked.measured_j},
                       {"energy_predicted_j", checked.predicted_j},
                       {"energy_miss_half_within_pct", sums.energy_miss.within_pct(0.5)},
                       {"energy_miss_most_within_pct", sums.energy_miss.within_pct(0.9)},
                       {"time_measured_s", checked.measured_s},
                       {"time_predicted_s", checked.predicted_s},
                       {"time_miss_half_within_pct", sums.time_miss.within_pct(0.5)},
                       {"time_miss_most_within_pct", sums.time_miss.within_pct(0.9)}};
    return json;
}

std::vector<std::string> columns_of(const std::string& group, const Factors& factors) {
    std::vector<std::string> names{group,           "runs",         "kWh measured",
                                   "compared runs", "kWh measured", "kWh default, predicted",
                                   "kWh saved *",   "saved % *",    "time added % *"};
    if (factors.price)
        names.push_back(factors.currency + " saved *");
    if (factors.co2_g)
        names.emplace_back("kg CO2 saved *");
    return names;
}

}  // namespace

std::string kwh_text(double joules) {
    const double kwh = joules / joules_per_kwh;
    return number(kwh, std::fabs(kwh) < 1000.0 ? 3 : 1);
}

void Report::add(const Run& run) {
    groups.add(run);
    if (const auto when = run.when()) {
        first = std::min(first.value_or(*when), *when);
        last = std::max(last.value_or(*when), *when);
    }
}

std::string Report::period() const {
    return first ? day_of(*first) + " to " + day_of(*last) : std::string();
}

std::vector<std::string> Report::coverage() const {
    const RunSums total = groups.total();
    const Pair& checked = total.checked;
    std::vector<std::string> said;
    said.push_back("Measured: energy and time of " + part_of(total.measured_runs, total.runs) +
                   " runs." +
                   (counts.without_record > 0 ? " " + std::to_string(counts.without_record) +
                                                    " more jobs of accounting have no record."
                                              : ""));
    said.push_back(
        "Compared: " + part_of(total.compared.runs, total.runs) +
        " runs were measured at a selected frequency, and their tags predict the default "
        "one.");
    if (checked.runs > 0) {
        said.push_back(
            "Checked: " + part_of(checked.runs, total.runs) +
            " runs against what their tags predicted for the frequency at which they ran. "
            "Energy measured " +
            two_decimals(-checked.saved_pct().value_or(0.0)) + " % against predicted, " +
            within(total.energy_miss) + "; time " + two_decimals(checked.added_pct()) + " %, " +
            within(total.time_miss) + ".");
    } else {
        said.emplace_back("Checked: no run can be held against a prediction of its tag.");
    }
    if (total.saving_exceeds_miss() == false)
        said.emplace_back(
            "The predictions missed by as much as they say was saved: these runs do not show a "
            "saving.");
    return said;
}

Table Report::table() const {
    std::vector<Column> columns;
    for (const std::string& name : columns_of(group, factors))
        columns.push_back({name, columns.empty() ? Align::left : Align::right});
    Table table(std::move(columns));
    const RunSums total = groups.total();
    const int decimals = decimals_for(total.energy_j);
    for (const auto& [name, sums] : groups.groups())
        table.add(row_of(name, sums, factors, decimals));
    if (groups.groups().size() > 1)
        table.add(row_of("Total", total, factors, decimals));
    return table;
}

std::string Report::text(bool colored) const {
    std::string text = period().empty() ? "" : "Runs that ended " + period() + "\n\n";
    text += table().text(colored);
    text += "\n* predicted for the default frequency minus measured, over the compared runs\n";
    for (const std::string& line : coverage())
        text += line + '\n';
    return text;
}

std::string Report::csv() const {
    Table csv({{group},
               {"runs"},
               {"failed_runs"},
               {"measured_runs"},
               {"energy_measured_j"},
               {"time_measured_s"},
               {"compared_runs"},
               {"compared_energy_measured_j"},
               {"default_energy_predicted_j"},
               {"compared_time_measured_s"},
               {"default_time_predicted_s"},
               {"checked_runs"},
               {"checked_energy_measured_j"},
               {"checked_energy_predicted_j"},
               {"checked_time_measured_s"},
               {"checked_time_predicted_s"}});
    for (const auto& [name, sums] : groups.groups()) {
        std::vector<Cell> row{name};
        const Pair& one = sums.compared;
        const Pair& two = sums.checked;
        for (const double figure :
             {sums.runs, sums.failed_runs, sums.measured_runs, sums.energy_j, sums.time_s, one.runs,
              one.measured_j, one.predicted_j, one.measured_s, one.predicted_s, two.runs,
              two.measured_j, two.predicted_j, two.measured_s, two.predicted_s})
            row.emplace_back(exact(figure));
        csv.add(std::move(row));
    }
    return csv.csv();
}

Json Report::json() const {
    Json list = Json::array();
    for (const auto& [name, sums] : groups.groups()) {
        Json one{{"name", name}};
        one.add_members(as_json(sums, factors));
        list.push_back(std::move(one));
    }
    Json json{
        {"by", group}, {"groups", std::move(list)}, {"total", as_json(groups.total(), factors)}};
    if (first) {
        json["first_end_s"] = *first;
        json["last_end_s"] = *last;
    }
    if (factors.price)
        json["price_per_kwh"] = {{"amount", *factors.price}, {"currency", factors.currency}};
    if (factors.co2_g)
        json["co2_g_per_kwh"] = *factors.co2_g;
    json["jobs_without_record"] = counts.without_record;
    json["lines_left_out"] = counts.unreadable;
    json["saving_exceeds_miss"] = groups.total().saving_exceeds_miss();
    return json;
}

}  // namespace easctl
