#include "tools/easctl/tag/SavingsReport.h"

#include <algorithm>

#include "interface/FrequencyPolicy.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/tag/SavingsPlot.h"

namespace easctl {

namespace {

std::string kwh(double joules) {
    return number(joules / joules_per_kwh, joules < 1000 * joules_per_kwh ? 3 : 0);
}

/// What one scenario does to a class, as cells of a table.
std::vector<Cell> outcome(const ClassSums& sums, std::size_t scenario) {
    const Cost& cost = sums.by_scenario[scenario];
    const double saved = sums.measured.energy_j - cost.energy_j;
    const double energy = change_pct(cost.energy_j, sums.measured.energy_j);
    return {kwh(cost.energy_j),
            kwh(saved),
            {signed_number(energy, 2), saved > 0.0 ? Style::good : Style::plain},
            signed_number(change_pct(cost.time_s, sums.measured.time_s), 2),
            std::to_string(sums.changed_runs[scenario])};
}

std::vector<Column> with_outcome(std::vector<Column> columns) {
    for (const char* title : {"Energy kWh", "Saved kWh", "Energy %", "Time %", "Runs changed"})
        columns.push_back({title, Align::right});
    return columns;
}

std::string what_it_means(const Scenario& scenario) {
    if (scenario.policy == eas::minimize_time)
        return "the fastest frequency that gains the time demanded of it";
    return "the least energy at no more than " + number(scenario.thresholds.get_def_perf(), 2) +
           " % more time";
}

Json as_json(const Cost& cost) {
    return {{"energy_j", cost.energy_j}, {"time_s", cost.time_s}};
}

Json as_json(const ClassSums& sums, const std::vector<Scenario>& scenarios) {
    Json results = Json::array();
    for (std::size_t i = 0; i < scenarios.size(); ++i) {
        const Cost& cost = sums.by_scenario[i];
        Json result{{"policy", scenarios[i].policy}};
        if (scenarios[i].limit_pct)
            result["threshold_pct"] = *scenarios[i].limit_pct;
        result.add_members(as_json(cost));
        result["energy_saved_j"] = sums.measured.energy_j - cost.energy_j;
        result["energy_change_pct"] = change_pct(cost.energy_j, sums.measured.energy_j);
        result["time_change_pct"] = change_pct(cost.time_s, sums.measured.time_s);
        result["runs_changed"] = sums.changed_runs[i];
        results.push_back(std::move(result));
    }
    return {{"jobs", sums.jobs},
            {"runs", sums.runs},
            {"measured", as_json(sums.measured)},
            {"policies", std::move(results)}};
}

}  // namespace

SavingsReport::SavingsReport(const Savings& savings)
    : savings_(savings), total_{"Total", savings.total()} {
    for (const auto& [name, sums] : savings.classes()) {
        if (!name.empty() || savings.classes().size() > 1)  // without any the total says it all
            classes_.push_back({name.empty() ? "(no class)" : name, sums});
    }
    std::stable_sort(classes_.begin(), classes_.end(), [](const NamedSums& a, const NamedSums& b) {
        return a.sums.measured.energy_j > b.sums.measured.energy_j;
    });
}

bool SavingsReport::swept() const {
    return savings_.scenarios().front().limit_pct.has_value();
}

std::string SavingsReport::text(bool colored) const {
    std::string out =
        std::to_string(total_.sums.jobs) + " jobs, " + std::to_string(total_.sums.runs) +
        " runs: " + kwh(total_.sums.measured.energy_j) + " kWh and " +
        number(total_.sums.measured.time_s / 3600.0, 2) + " node-hours at the default frequency\n";
    if (const std::string left_out = class_remark(); !left_out.empty())
        out += left_out + '\n';
    for (const std::string& policy : policies_of(savings_.scenarios())) {
        if (!swept()) {
            out += policy_block(policy, colored);
            continue;
        }
        if (classes_.size() > 1) {
            for (const NamedSums& entry : classes_)
                out += sweep_block(policy, entry, colored);
        }
        out += sweep_block(policy, total_, colored);
    }
    return out;
}

std::string SavingsReport::policy_block(const std::string& policy, bool colored) const {
    const std::size_t scenario = scenarios_of(savings_.scenarios(), policy).front();
    Table table(with_outcome({{"Class"}, {"Runs", Align::right}, {"Measured kWh", Align::right}}));
    const auto add = [&](const NamedSums& entry) {
        std::vector<Cell> row{entry.name, std::to_string(entry.sums.runs),
                              kwh(entry.sums.measured.energy_j)};
        for (Cell& cell : outcome(entry.sums, scenario))
            row.push_back(std::move(cell));
        table.add(std::move(row));
    };
    for (const NamedSums& entry : classes_) {
        if (classes_.size() > 1)
            add(entry);
    }
    add(total_);
    return "\n" + paint(policy, Style::bold, colored) + ": " +
           what_it_means(savings_.scenarios()[scenario]) + "\n" + table.text(colored, 2);
}

std::string SavingsReport::sweep_block(const std::string& policy, const NamedSums& entry,
                                       bool colored) const {
    Table table(with_outcome({{"Threshold %", Align::right}}));
    for (const std::size_t scenario : scenarios_of(savings_.scenarios(), policy)) {
        std::vector<Cell> row{number(*savings_.scenarios()[scenario].limit_pct, 2)};
        for (Cell& cell : outcome(entry.sums, scenario))
            row.push_back(std::move(cell));
        table.add(std::move(row));
    }
    return "\n" + paint(policy, Style::bold, colored) + ", " + printable(entry.name) + ": " +
           std::to_string(entry.sums.runs) + " runs, " + kwh(entry.sums.measured.energy_j) +
           " kWh measured\n" + table.text(colored, 2);
}

std::string SavingsReport::csv() const {
    Table table({{"class"},
                 {"policy"},
                 {"threshold_pct"},
                 {"jobs"},
                 {"runs"},
                 {"measured_energy_j"},
                 {"measured_time_s"},
                 {"energy_j"},
                 {"time_s"},
                 {"energy_change_pct"},
                 {"time_change_pct"},
                 {"runs_changed"}});
    const auto add = [&](const NamedSums& entry) {
        const ClassSums& sums = entry.sums;
        for (std::size_t i = 0; i < savings_.scenarios().size(); ++i) {
            const Scenario& scenario = savings_.scenarios()[i];
            const Cost& cost = sums.by_scenario[i];
            table.add(
                {entry.name, scenario.policy, scenario.limit_pct ? exact(*scenario.limit_pct) : "",
                 std::to_string(sums.jobs), std::to_string(sums.runs),
                 exact(sums.measured.energy_j), exact(sums.measured.time_s), exact(cost.energy_j),
                 exact(cost.time_s), exact(change_pct(cost.energy_j, sums.measured.energy_j)),
                 exact(change_pct(cost.time_s, sums.measured.time_s)),
                 std::to_string(sums.changed_runs[i])});
        }
    };
    for (const NamedSums& entry : classes_)
        add(entry);
    add({"(total)", total_.sums});
    return table.csv();
}

Json SavingsReport::json() const {
    Json classes = Json::array();
    for (const NamedSums& entry : classes_) {
        Json json{{"class", entry.name}};
        json.add_members(as_json(entry.sums, savings_.scenarios()));
        classes.push_back(std::move(json));
    }
    return {{"classes", std::move(classes)},
            {"jobs_in_other_classes", savings_.other_jobs()},
            {"total", as_json(total_.sums, savings_.scenarios())}};
}

std::string SavingsReport::class_remark() const {
    if (savings_.other_jobs() == 0)
        return {};
    return "more than " + std::to_string(Savings::most_classes) +
           " classes: the first of the file are shown; " + std::to_string(savings_.other_jobs()) +
           " jobs of later ones are summed up as \"" + Savings::other_classes + '"';
}

std::string SavingsReport::plot() const {
    std::vector<NamedSums> shown{{"all jobs", total_.sums}};
    if (classes_.size() > 1)
        shown.insert(shown.end(), classes_.begin(), classes_.end());
    return savings_plot(shown, savings_.scenarios());
}

}  // namespace easctl
