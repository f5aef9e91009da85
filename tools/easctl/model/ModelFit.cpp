#include "tools/easctl/model/ModelFit.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/model/ModelFile.h"

namespace easctl {
namespace {

/// Below this the two predictors say the same within rounding, and the fit is made of noise.
constexpr double singular = 1e-9;
/// Below this small errors of the measurement become large ones of the coefficients.
constexpr double nearly_singular = 1e-4;
/// Missing runs that a message names.
constexpr std::size_t most_named = 6;

double mean(const Points& points) {
    return std::accumulate(points.begin(), points.end(), 0.0) / kernel_count;
}

double covariance(const Points& x, const Points& y) {
    double sum = 0;
    for (std::size_t i = 0; i < kernel_count; ++i)
        sum += (x[i] - mean(x)) * (y[i] - mean(y));
    return sum;
}

double independence_of(const Points& x1, const Points& x2) {
    const double product = covariance(x1, x1) * covariance(x2, x2);
    const double shared = covariance(x1, x2);
    return product > 0 ? 1 - shared * shared / product : 0;
}

void judge(Fit& fit) {
    double squares = 0;
    for (std::size_t i = 0; i < kernel_count; ++i) {
        squares += fit.residual(i) * fit.residual(i);
        const double percent = std::abs(fit.residual(i) / fit.measured[i]) * 100;
        if (percent > fit.worst_percent) {
            fit.worst_percent = percent;
            fit.worst_kernel = i;
        }
    }
    fit.rms_residual = std::sqrt(squares / kernel_count);
    const double total = covariance(fit.measured, fit.measured);
    // Seven equal values leave nothing to explain.
    fit.r_squared = total > 0 ? 1 - squares / total : 1;
}

Fit fit_points(const Points& measured, const Points& at_default, const Points& lines) {
    const auto vector_of = [](const Points& points) {
        return std::vector<double>(points.begin(), points.end());
    };
    std::vector<double> result;
    if (EnergyUtil::cal_coefficients(vector_of(measured), vector_of(at_default), vector_of(lines),
                                     result) != 1)
        throw std::bad_alloc();
    Fit fit;
    fit.measured = measured;
    std::copy_n(result.begin(), fit.factors.size(), fit.factors.begin());
    for (std::size_t i = 0; i < kernel_count; ++i)
        fit.predicted[i] =
            fit.factors[0] * at_default[i] + (fit.factors[1] * lines[i] + fit.factors[2]);
    fit.independence = independence_of(at_default, lines);
    judge(fit);
    return fit;
}

bool finite(const Fit& fit) {
    return std::all_of(fit.factors.begin(), fit.factors.end(),
                       [](double factor) { return std::isfinite(factor); });
}

void warn_of(FrequencyFit& row, const Fit& fit, const char* what, const ModelFit& model,
             const FitLimits& limits) {
    const std::string name = what;
    if (!finite(fit) || fit.independence < singular) {
        row.unusable = name + ": the system is singular: at the default frequency the kernels' " +
                       name + " and memory lines per instruction move together";
        return;
    }
    if (fit.independence < nearly_singular)
        row.warnings.push_back(name +
                               ": the kernels hardly differ, the coefficients are mostly noise");
    if (fit.r_squared < limits.lowest_r_squared)
        row.warnings.push_back(name + ": R2 is " + number(fit.r_squared, 4) + ", below " +
                               exact(limits.lowest_r_squared));
    if (fit.worst_percent > limits.largest_error_percent)
        row.warnings.push_back(name + ": off by " + number(fit.worst_percent, 1) + " % for \"" +
                               model.kernels[fit.worst_kernel] + "\"");
    if (std::any_of(fit.predicted.begin(), fit.predicted.end(), [](double v) { return v <= 0; }))
        row.warnings.push_back(name + ": predicted as negative for a kernel");
}

void warn_of(FrequencyFit& row, const ModelFit& model, const FitLimits& limits) {
    if (row.is_default)
        return;
    warn_of(row, row.power, "power", model, limits);
    if (row.unusable.empty())
        warn_of(row, row.pace, "cycles per instruction", model, limits);
    if (row.unusable.empty() && row.as_model_row().marks_default())
        row.unusable =
            "all six coefficients are below 1e-6: the row would pass for the default "
            "frequency";
}

void require_kernels(const MeasurementFile& file) {
    const auto& kernels = file.kernels();
    if (kernels.empty())
        throw Failure(ExitCode::input, file.path() + ": no measurements");
    if (kernels.size() == kernel_count)
        return;
    std::string names;
    for (const auto& kernel : kernels)
        names += (names.empty() ? "" : ", ") + kernel.name;
    const std::string place = kernels.size() > kernel_count
                                  ? file.path() + ":" + std::to_string(kernels[kernel_count].line)
                                  : file.path();
    throw Failure(ExitCode::input, place + ": " + std::to_string(kernels.size()) + " kernels (" +
                                       names + "), the fit takes exactly " +
                                       std::to_string(kernel_count));
}

void require_combinations(const MeasurementFile& file) {
    std::string missing;
    std::size_t count = 0;
    for (const auto& [khz, line] : file.frequencies()) {
        for (std::size_t kernel = 0; kernel < kernel_count; ++kernel) {
            if (file.find(kernel, khz) != nullptr || ++count > most_named)
                continue;
            const auto& [name, first] = file.kernels()[kernel];
            missing += (missing.empty() ? "" : "\n") + file.path() + ":" + std::to_string(line) +
                       ": kernel \"" + name + "\" (line " + std::to_string(first) +
                       ") was not measured at " + std::to_string(khz) + " kHz";
        }
    }
    if (count > most_named)
        missing += "\nand " + std::to_string(count - most_named) + " more";
    if (!missing.empty())
        throw Failure(ExitCode::input, missing,
                      "measure what is missing, or take the frequency or kernel out of the file; "
                      "\"easctl model calibrate\" goes on with an unfinished file");
}

void choose_default(const MeasurementFile& file, int wanted, ModelFit& model) {
    model.default_khz = wanted;
    model.default_from = "as given";
    if (wanted == 0 && file.nominal_khz() != 0) {
        model.default_khz = file.nominal_khz();
        model.default_from = "the node's nominal one";
    } else if (wanted == 0) {
        model.default_khz = file.frequencies().rbegin()->first;
        model.default_from = "the highest one measured";
    }
    if (file.frequencies().count(model.default_khz) == 0)
        throw Failure(ExitCode::input,
                      file.path() + ": nothing was measured at the default frequency, " +
                          std::to_string(model.default_khz) + " kHz (" + model.default_from + ")",
                      "name another one with --default-frequency");
}

template <typename Value>
Points points_at(const MeasurementFile& file, int khz, Value value) {
    Points points{};
    for (std::size_t kernel = 0; kernel < kernel_count; ++kernel)
        points[kernel] = value(*file.find(kernel, khz));
    return points;
}

std::string quality_text(const Fit& fit, const ModelFit& model) {
    return "R2 " + number(fit.r_squared, 4) + ", worst " + number(fit.worst_percent, 2) + " % (" +
           model.kernels[fit.worst_kernel] + ")";
}

}  // namespace

eas::ModelRow FrequencyFit::as_model_row() const {
    eas::ModelRow row{khz, {}};
    std::copy(power.factors.begin(), power.factors.end(), row.factors.begin());
    std::copy(pace.factors.begin(), pace.factors.end(), row.factors.begin() + 3);
    return row;
}

bool ModelFit::usable() const {
    return std::all_of(rows.begin(), rows.end(),
                       [](const FrequencyFit& row) { return row.unusable.empty(); });
}

bool ModelFit::doubtful() const {
    return std::any_of(rows.begin(), rows.end(),
                       [](const FrequencyFit& row) { return !row.warnings.empty(); });
}

ModelFit fit_model(const MeasurementFile& file, int default_khz, const FitLimits& limits) {
    require_kernels(file);
    require_combinations(file);
    ModelFit model;
    choose_default(file, default_khz, model);
    for (const auto& kernel : file.kernels())
        model.kernels.push_back(kernel.name);
    const auto power = [](const KernelRun& run) { return run.power_w; };
    const auto pace = [](const KernelRun& run) { return run.cycles_per_instruction(); };
    const auto lines = [](const KernelRun& run) { return run.lines_per_instruction(); };
    const Points x = points_at(file, model.default_khz, lines);
    const Points default_power = points_at(file, model.default_khz, power);
    const Points default_pace = points_at(file, model.default_khz, pace);
    for (const auto& [khz, line] : file.frequencies()) {
        FrequencyFit row;
        row.khz = khz;
        row.is_default = khz == model.default_khz;
        if (row.is_default) {
            row.power.measured = row.power.predicted = default_power;
            row.pace.measured = row.pace.predicted = default_pace;
        } else {
            row.power = fit_points(points_at(file, khz, power), default_power, x);
            row.pace = fit_points(points_at(file, khz, pace), default_pace, x);
        }
        warn_of(row, model, limits);
        model.rows.push_back(std::move(row));
    }
    return model;
}

std::string coefficient_text(const ModelFit& model, const std::string& source) {
    std::string text = "# Fitted by easctl to " + printable(source) +
                       ".\n# kHz:A,B,C,D,E,F   power = A P + B x + C   "
                       "cycles/instruction = D cpi + E x + F\n"
                       "# The row of zeros is the default frequency.\n";
    for (const FrequencyFit& row : model.rows) {
        if (!row.is_default)
            text += "# " + std::to_string(row.khz) + " power: " + quality_text(row.power, model) +
                    "; cycles/instruction: " + quality_text(row.pace, model) + '\n';
        text += file_line(row.as_model_row());
    }
    return text;
}

}  // namespace easctl
