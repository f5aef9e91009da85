// easctl model fit: coefficients from the measurements of a calibration.
#include <filesystem>
#include <memory>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/OutputFile.h"
#include "tools/easctl/model/FitPlot.h"
#include "tools/easctl/model/ModelFit.h"

namespace easctl {
namespace {

struct FitOptions {
    std::string measurements;
    std::string output;
    std::string plot;
    int default_khz = 0;
    FitLimits limits;
};

Json json_of(const Fit& fit, const ModelFit& model) {
    Json json{{"r_squared", fit.r_squared},
              {"rms_residual", fit.rms_residual},
              {"worst_error_pct", fit.worst_percent},
              {"worst_kernel", model.kernels[fit.worst_kernel]},
              {"kernels", Json::array()}};
    for (std::size_t i = 0; i < kernel_count; ++i)
        json["kernels"].push_back({{"kernel", model.kernels[i]},
                                   {"measured", fit.measured[i]},
                                   {"predicted", fit.predicted[i]},
                                   {"residual", fit.residual(i)}});
    return json;
}

Json json_of(const ModelFit& model) {
    Json json{{"default_frequency_khz", model.default_khz},
              {"default_frequency_from", model.default_from},
              {"usable", model.usable()},
              {"rows", Json::array()}};
    for (const FrequencyFit& row : model.rows) {
        Json one{{"frequency_khz", row.khz},
                 {"default", row.is_default},
                 {"coefficients", row.as_model_row().factors}};
        if (!row.is_default) {
            one["power_w"] = json_of(row.power, model);
            one["cycles_per_instruction"] = json_of(row.pace, model);
        }
        one["warnings"] = row.warnings;
        if (!row.unusable.empty())
            one["unusable"] = row.unusable;
        json["rows"].push_back(std::move(one));
    }
    return json;
}

Cell quality_cell(double value, int decimals, bool good) {
    return {number(value, decimals), good ? Style::good : Style::warning};
}

/// `decimals`: of the residual.
void add_quality(std::vector<Cell>& cells, const Fit& fit, int decimals, const ModelFit& model,
                 const FitLimits& limits) {
    cells.emplace_back(number(fit.rms_residual, decimals));
    cells.push_back(quality_cell(fit.r_squared, 4, fit.r_squared >= limits.lowest_r_squared));
    cells.push_back(
        quality_cell(fit.worst_percent, 2, fit.worst_percent <= limits.largest_error_percent));
    cells.emplace_back(model.kernels[fit.worst_kernel]);
}

Cell verdict(const FrequencyFit& row) {
    if (!row.unusable.empty())
        return {"unusable", Style::bad};
    if (!row.warnings.empty())
        return {"doubtful", Style::warning};
    return row.is_default ? Cell("default") : Cell("good", Style::good);
}

std::string report_text(const ModelFit& model, const FitLimits& limits, bool colored) {
    Table table({{"kHz", Align::right},
                 {"power rms W", Align::right},
                 {"R2", Align::right},
                 {"worst %", Align::right},
                 {"kernel"},
                 {"pace rms c/i", Align::right},
                 {"R2", Align::right},
                 {"worst %", Align::right},
                 {"kernel"},
                 {"verdict"}});
    for (const FrequencyFit& row : model.rows) {
        std::vector<Cell> cells{std::to_string(row.khz)};
        if (row.is_default) {
            cells.insert(cells.end(), 8, Cell("-"));
        } else {
            add_quality(cells, row.power, 2, model, limits);
            add_quality(cells, row.pace, 4, model, limits);
        }
        cells.push_back(verdict(row));
        table.add(std::move(cells));
    }
    return table.text(colored);
}

/// Says what is wrong with the fit; the outcome of the command.
ExitCode warn(const ModelFit& model, const std::string& path) {
    for (const FrequencyFit& row : model.rows) {
        const std::string place = path + ": " + std::to_string(row.khz) + " kHz: ";
        if (!row.unusable.empty())
            std::fprintf(stderr, "easctl: %s\n", printable(place + row.unusable).c_str());
        for (const std::string& warning : row.warnings)
            std::fprintf(stderr, "easctl: %s\n", printable(place + warning).c_str());
    }
    if (!model.usable())
        std::fputs("easctl: no coefficients were written: measure again\n", stderr);
    return model.usable() && !model.doubtful() ? ExitCode::ok : ExitCode::found;
}

void run_fit(const FitOptions& options, Globals& globals) {
    const MeasurementFile file(options.measurements);
    const ModelFit model = fit_model(file, options.default_khz, options.limits);
    const std::string source =
        options.measurements == "-"
            ? "standard input"
            : std::filesystem::path(options.measurements).filename().string();
    if (!options.output.empty() && model.usable())
        write_file(options.output, coefficient_text(model, source));
    if (globals.json) {
        Json json = json_of(model);
        json["meter"] = file.meter().empty() ? Json(nullptr) : Json(file.meter());
        print_json(json);
    } else if (!options.output.empty() || !model.usable()) {
        print("Default frequency: " + std::to_string(model.default_khz) + " kHz, " +
              model.default_from +
              ". rms: of what the fit leaves, in W and cycles per\n"
              "instruction; time is off by as many percent as the latter.\n" +
              report_text(model, options.limits, globals.colored()));
    } else {
        print(coefficient_text(model, source));
    }
    if (!file.meter().empty())
        remark(globals, "measured by " + file.meter() +
                            "; the model is good for jobs that the same meter measured");
    globals.outcome = warn(model, options.measurements);
    if (!options.output.empty() && model.usable())
        remark(globals, "written: " + options.output + "; next: easctl model import " +
                            options.output + " --cluster NAME");
    draw(options.plot, fit_plot(model), globals);
}

}  // namespace

void add_fit_command(CLI::App& model, Globals& globals) {
    CLI::App& command = add_command(
        model, "fit", "coefficients from the measurements of a calibration",
        "easctl model fit measurements.csv -o coefficients.txt\n"
        "easctl model fit measurements.csv -o coefficients.txt --plot fit.svg\n"
        "easctl model fit measurements.csv --default-frequency 2300000 > coefficients.txt");
    const auto options = std::make_shared<FitOptions>();
    add_option(command, "MEASUREMENTS", options->measurements,
               "CSV file, - for standard input; its first line names the columns kernel,\n"
               "frequency_khz, elapsed_s, power_w, cycles, instructions, memory_bytes. Seven\n"
               "kernels, each at every frequency; several runs of one kernel at one frequency\n"
               "are averaged")
        .required()
        .type_name("FILE");
    add_output_option(command, options->output,
                      "where the coefficients go (else to standard output, without the report)");
    add_option(command, "--default-frequency", options->default_khz,
               "the frequency at which jobs will be measured; by default the one of the\n"
               "column nominal_khz, else the highest of the file")
        .check(positive_number())
        .type_name("KHZ");
    add_plot_option(command, options->plot, "draw predicted against measured");
    add_option(command, "--min-r2", options->limits.lowest_r_squared,
               "a fit that explains less is doubtful: exit code 1")
        .check(number_from(0.0, 1.0))
        .show_default()
        .type_name("R2");
    add_option(command, "--max-error", options->limits.largest_error_percent,
               "so is one that is off by more for a kernel, in percent")
        .check(number_from(0.0))
        .show_default()
        .type_name("PERCENT");
    set_action(command, [options, &globals] { run_fit(*options, globals); });
}

}  // namespace easctl
