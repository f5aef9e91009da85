#include "tools/easctl/tag/TradeOffPlot.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "interface/FrequencyPolicy.h"
#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/cli/Units.h"

namespace easctl {

namespace {

/// Of a point of the curve: run time and energy.
std::string place_of(const eas::TagRow& row) {
    return std::to_string(row.seconds) + ' ' + exact(row.energy() / joules_per_kwh);
}

/// A point that bears a name: the measured run, or what a policy selects.
struct Mark {
    eas::TagRow row;
    std::string name;
    const char* color;
};

/// One mark for each frequency, the one of most energy first.
std::vector<Mark> marks_of(const EnergyTag& tag, const EnergyPerfThreshold& thresholds) {
    std::vector<Mark> marks;
    const auto add = [&](int frequency, const std::string& name, const char* color) {
        const auto row = tag.row_of(frequency);
        const auto same = std::find_if(marks.begin(), marks.end(), [&](const Mark& mark) {
            return mark.row.frequency == frequency;
        });
        if (same != marks.end()) {
            same->name += ", " + name;
            same->color = color;
        } else if (row) {
            marks.push_back({*row, ghz(frequency) + ": " + name, color});
        }
    };
    add(tag.default_frequency(), "measured", "#222222");
    add(eas::select_frequency(tag, eas::minimize_energy, thresholds).frequency, "minimize_energy",
        plot_colors[0]);
    add(eas::select_frequency(tag, eas::minimize_time, thresholds).frequency, "minimize_time",
        plot_colors[1]);
    std::sort(marks.begin(), marks.end(),
              [](const Mark& a, const Mark& b) { return a.row.energy() > b.row.energy(); });
    return marks;
}

/// What there is to read from the picture.
std::string subtitle_of(const EnergyTag& tag, const EnergyPerfThreshold& thresholds) {
    std::string text = "Lower needs less energy, further left is faster.";
    for (const auto policy : {eas::minimize_energy, eas::minimize_time}) {
        const int frequency = eas::select_frequency(tag, policy, thresholds).frequency;
        const auto row = tag.row_of(frequency);
        if (row && frequency == tag.default_frequency())
            text += "  " + std::string(policy) + " stays at " + ghz(frequency) + '.';
        else if (row)
            text += "  " + std::string(policy) + ": " + signed_percent(row->energy_change, 1) +
                    " % energy, " + signed_percent(row->time_change, 1) + " % time.";
    }
    return text;
}

/// The points without a name of their own: place, frequency in GHz, and which way the curve goes
/// on, 1 where it climbs towards lower frequencies.
std::string plain_points(const EnergyTag& tag, const std::vector<Mark>& marks) {
    std::string points;
    for (std::size_t i = 0; i < tag.rows().size(); ++i) {
        const eas::TagRow row = tag.row(i);
        const bool is_marked = std::any_of(marks.begin(), marks.end(), [&](const Mark& mark) {
            return mark.row.frequency == row.frequency;
        });
        const bool climbs = i + 1 < tag.rows().size() && tag.row(i + 1).energy() < row.energy() &&
                            tag.row(i + 1).seconds < row.seconds;
        if (!is_marked)
            points += place_of(row) + ' ' + exact(row.frequency / 1e6) + (climbs ? " 1\n" : " 0\n");
    }
    return points;
}

/// The frequencies of one branch of the curve, below it.
std::string plain_labels(char branch, const std::string& side) {
    return std::string(", \\\n  $plain using 1:($4 == ") + branch +
           " ? $2 : NaN):(sprintf('%.2f', $3)) with labels " + side +
           ",-0.6 font ',9' tc rgb '#666666'";
}

/// Names stand to the right of their points, in front of the curve; neighbours apart.
std::string labels_of(const std::vector<Mark>& marks) {
    std::string script = "set style textbox opaque noborder margins 0.3,0.3\n";
    double lift = 0.3 * static_cast<double>(marks.size());
    for (const Mark& mark : marks) {
        script += "set label " + plot_text(mark.name) + " at " + std::to_string(mark.row.seconds) +
                  ',' + exact(mark.row.energy() / joules_per_kwh) + " left offset 1.6," +
                  exact(lift) + " front boxed tc rgb '" + mark.color +
                  "' point pt 7 ps 1.6 lc rgb '" + mark.color + "'\n";
        lift -= 0.3;
    }
    return script;
}

}  // namespace

std::string trade_off_plot(const EnergyTag& tag, const EnergyPerfThreshold& thresholds) {
    const std::vector<Mark> marks = marks_of(tag, thresholds);
    const std::string plain = plain_points(tag, marks);
    std::string curve;
    for (const eas::TagRow& row : tag.rows())
        curve += place_of(row) + '\n';
    std::string script =
        "$curve << EOD\n" + curve + "EOD\n$plain << EOD\n" + plain + "EOD\n" +
        plot_heading("Tag \"" + tag.energy_tag_name() + "\" of " + tag.user_name() + " on " +
                         tag.cluster_name() + ": what each frequency costs",
                     subtitle_of(tag, thresholds)) +
        "set xlabel 'Run time (s)'\nset ylabel 'Energy of a node (kWh)'\n"
        "set grid lt 1 lc rgb '#e4e4e4'\nunset key\n"
        "set offsets graph 0.07, graph 0.20, graph 0.06, graph 0.06\n" +
        labels_of(marks) +
        "plot $curve using 1:2 with linespoints lc rgb '#8a8a8a' lw 1.5 pt 7 ps 0.6";
    if (!plain.empty())
        script += plain_labels('0', "right offset -0.8") + plain_labels('1', "left offset 0.8");
    return script + '\n';
}

}  // namespace easctl
