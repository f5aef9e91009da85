#include "tools/easctl/tag/TradeOffPlot.h"

#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "interface/FrequencyPolicy.h"
#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/cli/Units.h"

namespace easctl {

namespace {

/// One point of the curve: run time, energy and, as its label, the frequency.
std::string point(const EnergyTag& tag, std::size_t i) {
    const int seconds = tag.predict_elapse_time_array()[i];
    return std::to_string(seconds) + ' ' +
           exact(tag.predict_power_array()[i] * seconds / joules_per_kwh) + ' ' +
           exact(tag.frequency_array()[i] / 1e6) + '\n';
}

std::string block(const std::string& name, const std::string& points) {
    return '$' + name + " << EOD\n" + points + "EOD\n";
}

std::string point_of(const EnergyTag& tag, int frequency) {
    for (std::size_t i = 0; i < tag.frequency_array().size(); ++i) {
        if (tag.frequency_array()[i] == frequency)
            return point(tag, i);
    }
    return {};
}

}  // namespace

std::string trade_off_plot(const EnergyTag& tag, const EnergyPerfThreshold& thresholds) {
    const int by_energy = eas::select_frequency(tag, eas::minimize_energy, thresholds).frequency;
    const int by_time = eas::select_frequency(tag, eas::minimize_time, thresholds).frequency;
    std::string curve;
    for (std::size_t i = 0; i < tag.frequency_array().size(); ++i)
        curve += point(tag, i);

    std::string script =
        block("curve", curve) + block("measured", point_of(tag, tag.default_frequency())) +
        block("energy", point_of(tag, by_energy)) + block("time", point_of(tag, by_time));
    script += "set title " +
              plot_text("Tag \"" + tag.energy_tag_name() + "\" of " + tag.user_name() + " on " +
                        tag.cluster_name() + ": what each frequency costs") +
              "\nset xlabel 'Run time (s)'\nset ylabel 'Energy of a node (kWh)'\n"
              "set grid lt 1 lc rgb '#dddddd'\nset key below\n"
              "set offsets graph 0.04, graph 0.06, graph 0.08, graph 0.04\n"
              "plot $curve using 1:2 with linespoints lc rgb '#5a6b7b' lw 1.5 pt 7 ps 0.6"
              " title 'predicted', \\\n"
              "  $measured using 1:2 with points lc rgb '#222222' pt 7 ps 1.2 title ";
    script += plot_text("measured: " + ghz(tag.default_frequency())) +
              ", \\\n  $energy using 1:2 with points lc rgb '#1a8f3c' lw 2.5 pt 6 ps 2.4 title " +
              plot_text("minimize_energy selects " + ghz(by_energy)) +
              ", \\\n  $time using 1:2 with points lc rgb '#c4441c' lw 2.5 pt 4 ps 2.8 title " +
              plot_text("minimize_time selects " + ghz(by_time)) +
              ", \\\n  $curve using 1:2:(sprintf('%.2f GHz', $3)) with labels left offset 0.9,0.7"
              " font ',9' notitle\n";
    return script;
}

}  // namespace easctl
