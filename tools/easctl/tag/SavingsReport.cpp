#include "tools/easctl/tag/SavingsReport.h"

#include <algorithm>
#include <array>

#include "interface/FrequencyPolicy.h"
#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Units.h"

namespace easctl {

namespace {

constexpr std::size_t most_curves = 7;  // of classes, that a picture still shows apart
// Of each policy energy, then time.
constexpr std::array bar_colors{"#1a8f3c", "#a3d9b1", "#c4441c", "#efb9a5"};
constexpr std::array curve_colors{"#1a8f3c", "#c4441c", "#2b6cb0", "#8e44ad",
                                  "#d68910", "#16a2a2", "#b03a6b"};

std::string kwh(double joules) {
    return number(joules / joules_per_kwh, joules < 1000 * joules_per_kwh ? 3 : 0);
}

/// The change from `before`, in percent.
double change_pct(double after, double before) {
    return before > 0.0 ? 100.0 * (after / before - 1.0) : 0.0;
}

std::string signed_number(double value, int decimals) {
    const std::string text = number(value, decimals);
    return text.front() == '-' ? text : '+' + text;
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
        result.update(as_json(cost));
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
    std::stable_sort(classes_.begin(), classes_.end(), [](const Entry& a, const Entry& b) {
        return a.sums.measured.energy_j > b.sums.measured.energy_j;
    });
}

bool SavingsReport::swept() const {
    return savings_.scenarios().front().limit_pct.has_value();
}

std::vector<std::string> SavingsReport::policies() const {
    std::vector<std::string> names;
    for (const Scenario& scenario : savings_.scenarios()) {
        if (std::find(names.begin(), names.end(), scenario.policy) == names.end())
            names.push_back(scenario.policy);
    }
    return names;
}

std::vector<std::size_t> SavingsReport::scenarios_of(const std::string& policy) const {
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < savings_.scenarios().size(); ++i) {
        if (savings_.scenarios()[i].policy == policy)
            places.push_back(i);
    }
    return places;
}

std::string SavingsReport::text(bool colored) const {
    std::string out =
        std::to_string(total_.sums.jobs) + " jobs, " + std::to_string(total_.sums.runs) +
        " runs: " + kwh(total_.sums.measured.energy_j) + " kWh and " +
        number(total_.sums.measured.time_s / 3600.0, 2) + " node-hours at the default frequency\n";
    if (const std::string left_out = class_remark(); !left_out.empty())
        out += left_out + '\n';
    for (const std::string& policy : policies()) {
        if (!swept()) {
            out += policy_block(policy, colored);
            continue;
        }
        if (classes_.size() > 1) {
            for (const Entry& entry : classes_)
                out += sweep_block(policy, entry, colored);
        }
        out += sweep_block(policy, total_, colored);
    }
    return out;
}

std::string SavingsReport::policy_block(const std::string& policy, bool colored) const {
    const std::size_t scenario = scenarios_of(policy).front();
    Table table(with_outcome({{"Class"}, {"Runs", Align::right}, {"Measured kWh", Align::right}}));
    const auto add = [&](const Entry& entry) {
        std::vector<Cell> row{entry.name, std::to_string(entry.sums.runs),
                              kwh(entry.sums.measured.energy_j)};
        for (Cell& cell : outcome(entry.sums, scenario))
            row.push_back(std::move(cell));
        table.add(std::move(row));
    };
    for (const Entry& entry : classes_) {
        if (classes_.size() > 1)
            add(entry);
    }
    add(total_);
    return "\n" + paint(policy, Style::bold, colored) + ": " +
           what_it_means(savings_.scenarios()[scenario]) + "\n" + table.text(colored, 2);
}

std::string SavingsReport::sweep_block(const std::string& policy, const Entry& entry,
                                       bool colored) const {
    Table table(with_outcome({{"Threshold %", Align::right}}));
    for (const std::size_t scenario : scenarios_of(policy)) {
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
    const auto add = [&](const Entry& entry) {
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
    for (const Entry& entry : classes_)
        add(entry);
    add({"(total)", total_.sums});
    return table.csv();
}

Json SavingsReport::json() const {
    Json classes = Json::array();
    for (const Entry& entry : classes_) {
        Json json{{"class", entry.name}};
        json.update(as_json(entry.sums, savings_.scenarios()));
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
    return swept() ? sweep_plot() : class_plot();
}

/// Two panels, one per policy: the energy change of the total and the largest classes, and the
/// total's time change, against the threshold.
std::string SavingsReport::sweep_plot() const {
    std::vector<Entry> curves{total_};
    if (classes_.size() > 1) {
        const std::size_t count = std::min(classes_.size(), most_curves);
        curves.insert(curves.end(), classes_.begin(),
                      classes_.begin() + static_cast<std::ptrdiff_t>(count));
    }
    const std::vector<std::string> shown = policies();
    std::string script = "set multiplot layout 1," + std::to_string(shown.size()) +
                         "\nset grid lt 1 lc rgb '#dddddd'\nset key below\n"
                         "set xlabel 'Threshold (% of the run time)'\n"
                         "set ylabel 'Change against the default frequency (%)'\n";
    for (std::size_t p = 0; p < shown.size(); ++p) {
        std::string data;
        for (const std::size_t i : scenarios_of(shown[p])) {
            data +=
                exact(*savings_.scenarios()[i].limit_pct) + ' ' +
                exact(change_pct(total_.sums.by_scenario[i].time_s, total_.sums.measured.time_s));
            for (const Entry& entry : curves)
                data += ' ' + exact(change_pct(entry.sums.by_scenario[i].energy_j,
                                               entry.sums.measured.energy_j));
            data += '\n';
        }
        const std::string block = "$policy" + std::to_string(p);
        script += block + " << EOD\n" + data + "EOD\nset title " + plot_text(shown[p]) + "\nplot " +
                  block + " using 1:2 with lines lw 2.5 dt 2 lc rgb '#222222' title 'time, total'";
        for (std::size_t c = 0; c < curves.size(); ++c) {
            script += ", \\\n  " + block + " using 1:" + std::to_string(c + 3) +
                      (c == 0 ? " with lines lw 2.5 lc rgb '#222222' title "
                              : " with lines lw 1.5 lc rgb " + plot_text(curve_colors[c - 1]) +
                                    " title ") +
                      plot_text("energy, " + (c == 0 ? std::string("total") : curves[c].name));
        }
        script += '\n';
    }
    return script + "unset multiplot\n";
}

/// The energy change of the total and the largest classes, a bar per policy.
std::string SavingsReport::class_plot() const {
    const std::vector<std::string> shown = policies();
    std::string data;
    const auto add = [&](const Entry& entry) {
        // Only quotes end a quoted field, and a program's label is no place for them.
        std::string name = printable(entry.name);
        std::replace(name.begin(), name.end(), '"', '\'');
        data += '"' + name + '"';
        for (const std::string& policy : shown) {
            const Cost& cost = entry.sums.by_scenario[scenarios_of(policy).front()];
            data += ' ' + exact(change_pct(cost.energy_j, entry.sums.measured.energy_j)) + ' ' +
                    exact(change_pct(cost.time_s, entry.sums.measured.time_s));
        }
        data += '\n';
    };
    add(total_);
    for (std::size_t i = 0; classes_.size() > 1 && i < classes_.size() && i < most_curves; ++i)
        add(classes_[i]);
    std::string script =
        "$classes << EOD\n" + data +
        "EOD\nset style data histograms\nset style histogram clustered gap 1.5\n"
        "set style fill solid 0.85 noborder\nset boxwidth 0.9\n"
        "set grid ytics lt 1 lc rgb '#dddddd'\nset key below\nset xtics rotate by -25\n"
        "set xzeroaxis lt -1\n"
        "set ylabel 'Change against the default frequency (%)'\nplot ";
    for (std::size_t p = 0; p < shown.size(); ++p) {
        for (std::size_t figure = 0; figure < 2; ++figure) {
            script += (p + figure > 0 ? ", \\\n  " : "") + std::string("$classes using ") +
                      std::to_string(2 + 2 * p + figure) + (p + figure == 0 ? ":xtic(1)" : "") +
                      " lc rgb " + plot_text(bar_colors[2 * p + figure]) + " title " +
                      plot_text(shown[p] + (figure == 0 ? ": energy" : ": time"));
        }
    }
    return script + '\n';
}

}  // namespace easctl
