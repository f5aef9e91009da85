#include "tools/easctl/tag/SavingsPlot.h"

#include <algorithm>
#include <array>
#include <utility>

#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {

namespace {

constexpr std::size_t most_curves = plot_colors.size();  // beside the total
constexpr const char* total_color = "#222222";
constexpr const char* time_color = "#8a8a8a";
// Of each policy energy, then time.
constexpr std::array bar_colors{"#0072b2", "#9fcbe6", "#d55e00", "#f4bf99"};

double energy_change(const ClassSums& sums, std::size_t scenario) {
    return change_pct(sums.by_scenario[scenario].energy_j, sums.measured.energy_j);
}

double time_change(const ClassSums& sums, std::size_t scenario) {
    return change_pct(sums.by_scenario[scenario].time_s, sums.measured.time_s);
}

/// A class's name, cut where it would run out of the picture.
std::string shortened(const std::string& name) {
    constexpr std::size_t longest = 18;
    const std::string text = printable(name);
    if (text.size() <= longest)
        return text;
    std::size_t end = longest - 2;
    while (end > 0 && (text[end] & 0xC0) == 0x80)
        --end;  // not within a character
    return text.substr(0, end) + "..";
}

/// A curve of a panel, named at its end.
struct Curve {
    std::string name;
    std::string color;
    double width;
    std::vector<double> percent;  // for each step of the sweep
    double label_at = 0.0;
};

/// Moves the names of curves that end close together apart; `range` is the panel's height.
void spread_labels(std::vector<Curve>& curves, double range) {
    const double least = range * 0.05;
    std::vector<Curve*> order;
    for (Curve& curve : curves) {
        curve.label_at = curve.percent.back();
        order.push_back(&curve);
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const Curve* a, const Curve* b) { return a->label_at < b->label_at; });
    for (std::size_t i = 1; i < order.size(); ++i)
        order[i]->label_at = std::max(order[i]->label_at, order[i - 1]->label_at + least);
    // What was pushed up is centred again on where the curves end.
    double shift = 0.0;
    for (const Curve* curve : order)
        shift += (curve->label_at - curve->percent.back()) / static_cast<double>(order.size());
    for (Curve* curve : order)
        curve->label_at -= shift;
}

/// One panel of a sweep: the changes under one policy.
class Panel {
  public:
    Panel(const std::vector<NamedSums>& shown, const std::vector<Scenario>& scenarios,
          const std::string& policy)
        : policy_(policy), steps_(scenarios_of(scenarios, policy)) {
        for (const std::size_t step : steps_)
            limits_.push_back(scenarios[step].limit_pct.value_or(0.0));
        const std::size_t count = std::min(shown.size(), most_curves + 1);
        for (std::size_t i = count; i-- > 1;)
            add(shown[i].name, plot_colors[i - 1], 1.8, shown[i].sums, energy_change);
        add("time, total", time_color, 2.5, shown[0].sums, time_change);
        add("energy, total", total_color, 3.0, shown[0].sums, energy_change);
        spread_labels(curves_, range());
    }

    [[nodiscard]] std::string script(const std::string& block) const {
        std::string text = block + " << EOD\n";
        for (std::size_t i = 0; i < steps_.size(); ++i) {
            text += exact(limits_[i]);
            for (const Curve& curve : curves_)
                text += ' ' + exact(curve.percent[i]);
            text += '\n';
        }
        text += "EOD\nset title " + plot_text(policy_) + '\n';
        std::string plots;
        for (std::size_t c = 0; c < curves_.size(); ++c) {
            const Curve& curve = curves_[c];
            text += "set label " + plot_text(curve.name) + " at graph 1.02, first " +
                    exact(curve.label_at) + " left tc rgb '" + curve.color + "' font ',10'\n";
            plots += (c == 0 ? "plot " : ", \\\n  ") + block + " using 1:" + std::to_string(c + 2) +
                     " with lines lw " + exact(curve.width) + " lc rgb '" + curve.color + '\'';
        }
        return text + plots + "\nunset label\n";
    }

  private:
    void add(const std::string& name, const char* color, double width, const ClassSums& sums,
             double (*change)(const ClassSums&, std::size_t)) {
        Curve curve{shortened(name), color, width, {}};
        for (const std::size_t step : steps_)
            curve.percent.push_back(change(sums, step));
        curves_.push_back(std::move(curve));
    }

    [[nodiscard]] double range() const {
        double low = 0.0;
        double high = 0.0;
        for (const Curve& curve : curves_) {
            const auto [least, most] =
                std::minmax_element(curve.percent.begin(), curve.percent.end());
            low = std::min(low, *least);
            high = std::max(high, *most);
        }
        return high - low;
    }

    std::string policy_;
    std::vector<std::size_t> steps_;  // places of the scenarios
    std::vector<double> limits_;
    std::vector<Curve> curves_;  // the ones in front last
};

std::string sweep_plot(const std::vector<NamedSums>& shown,
                       const std::vector<Scenario>& scenarios) {
    const std::vector<std::string> policies = policies_of(scenarios);
    const std::string width = exact(1.0 / static_cast<double>(policies.size()));
    std::string script = "set multiplot\n" +
                         plot_heading("What past jobs would have cost under each policy",
                                      "Below 0 saves: energy of all jobs (black) and of each class "
                                      "against the threshold; run time of all jobs in grey.") +
                         "set tmargin at screen 0.81\nset size " + width +
                         ",1\nset grid lt 1 lc rgb '#e4e4e4'\nunset key\n"
                         "set xzeroaxis lt 1 lc rgb '#222222'\nset rmargin 18\n"
                         "set xlabel 'Threshold (% of the run time)'\n"
                         "set ylabel 'Change against the default frequency (%)'\n"
                         "set offsets graph 0, graph 0, graph 0.05, graph 0.05\n";
    for (std::size_t p = 0; p < policies.size(); ++p) {
        script += "set origin " + exact(static_cast<double>(p)) + '*' + width + ",0\n" +
                  Panel(shown, scenarios, policies[p]).script("$policy" + std::to_string(p));
    }
    return script + "unset multiplot\n";
}

/// The data of the bars: a line for each class, of each policy energy and time.
std::string bars_of(const std::vector<NamedSums>& shown, const std::vector<std::size_t>& places) {
    std::string data;
    const std::size_t count = std::min(shown.size(), most_curves + 1);
    for (std::size_t i = 0; i < count; ++i) {
        // Only quotes end a quoted field, and a program's label is no place for them.
        std::string name = shortened(shown[i].name);
        std::replace(name.begin(), name.end(), '"', '\'');
        data += '"' + name + '"';
        for (const std::size_t scenario : places)
            data += ' ' + exact(energy_change(shown[i].sums, scenario)) + ' ' +
                    exact(time_change(shown[i].sums, scenario));
        data += '\n';
    }
    return data;
}

std::string class_plot(const std::vector<NamedSums>& shown,
                       const std::vector<Scenario>& scenarios) {
    const std::vector<std::string> policies = policies_of(scenarios);
    std::vector<std::size_t> places;
    for (const std::string& policy : policies)
        places.push_back(scenarios_of(scenarios, policy).front());
    std::string script =
        "$classes << EOD\n" + bars_of(shown, places) + "EOD\n" +
        plot_heading("What past jobs would have cost under each policy",
                     "Below 0 saves: change of energy (dark) and of run time (light), largest "
                     "classes first.") +
        "set style data histograms\nset style histogram clustered gap 1.5\n"
        "set style fill solid 1 noborder\nset boxwidth 0.9\n"
        "set grid ytics lt 1 lc rgb '#e4e4e4'\nset xtics rotate by -25 scale 0\n"
        "set key at screen 0.02,0.875 left top horizontal Left reverse samplen 1.5 maxrows 1\n"
        "set tmargin at screen 0.80\nset xzeroaxis lt -1\n"
        "set ylabel 'Change against the default frequency (%)'\nplot ";
    for (std::size_t bar = 0; bar < 2 * policies.size(); ++bar) {
        script += (bar > 0 ? ", \\\n  " : "") + std::string("$classes using ") +
                  std::to_string(2 + bar) + (bar == 0 ? ":xtic(1)" : "") + " lc rgb '" +
                  bar_colors[bar] + "' title " +
                  plot_text(policies[bar / 2] + (bar % 2 == 0 ? ": energy" : ": time"));
    }
    return script + '\n';
}

}  // namespace

std::string savings_plot(const std::vector<NamedSums>& shown,
                         const std::vector<Scenario>& scenarios) {
    return scenarios.front().limit_pct ? sweep_plot(shown, scenarios)
                                       : class_plot(shown, scenarios);
}

}  // namespace easctl
