#include "tools/easctl/model/FitPlot.h"

#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {

namespace {

/// The points of one of the two fits, and the one that is predicted worst.
struct Series {
    std::string data;
    double worst_percent = 0.0;
    std::string worst;

    void add(const Fit& fit, int khz, const ModelFit& model) {
        for (std::size_t i = 0; i < kernel_count; ++i)
            data += exact(fit.measured[i]) + ' ' + exact(fit.predicted[i]) + ' ' +
                    exact(khz / 1e6) + '\n';
        if (worst.empty() || fit.worst_percent > worst_percent) {
            worst_percent = fit.worst_percent;
            worst = number(fit.worst_percent, 1) + " % (" + model.kernels[fit.worst_kernel] +
                    " at " + ghz(khz) + ')';
        }
    }

    [[nodiscard]] std::string panel(const std::string& name, const std::string& unit) const {
        const std::string block = "$" + unit.substr(0, 1);
        return block + " << END\n" + data + "END\nset title " + plot_text(name) + "\nset xlabel " +
               plot_text("measured, " + unit) + "\nset ylabel " + plot_text("predicted, " + unit) +
               "\nplot x with lines lc rgb '#8a8a8a' notitle, " + block +
               " using 1:2:3 with points pt 7 ps 0.9 lc palette notitle\nunset label\n";
    }
};

}  // namespace

std::string fit_plot(const ModelFit& model) {
    Series power;
    Series pace;
    for (const FrequencyFit& row : model.rows) {
        if (row.is_default || !row.unusable.empty())
            continue;
        power.add(row.power, row.khz, model);
        pace.add(row.pace, row.khz, model);
    }
    if (power.data.empty())
        return {};
    // From dark blue to yellow: lighter is faster for every eye.
    return "set multiplot layout 1,2 margins screen 0.08,0.87,0.12,0.79 spacing screen 0.1\n" +
           plot_heading("Fit of seven kernels at each frequency; default " + ghz(model.default_khz),
                        "On the grey line the prediction is exact. Furthest off: power " +
                            power.worst + ", pace " + pace.worst + ".") +
           "set tmargin at screen 0.79\nset grid lt 1 lc rgb '#e4e4e4'\nunset key\nset cblabel "
           "'GHz'\n"
           "unset colorbox\n"
           "set palette defined (0 '#00224e', 1 '#3b5470', 2 '#7d7c78', 3 '#bdaa63', 4 '#e8c520')\n"
           "set cbrange [" +
           exact(model.rows.front().khz / 1e6) + ':' + exact(model.rows.back().khz / 1e6) + "]\n" +
           power.panel("Node power", "W") + "set colorbox\n" +
           pace.panel("Pace", "cycles per instruction") + "unset multiplot\n";
}

}  // namespace easctl
