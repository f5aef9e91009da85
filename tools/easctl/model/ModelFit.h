// Coefficients from the measurements of a calibration, and how well they describe them.
//
// At each frequency seven kernels give seven points. A, B, C come from the power there on the power
// at the default frequency and the memory lines per instruction there; D, E, F from the cycles per
// instruction in the same way. The time that the library predicts is off by as many percent as the
// cycles per instruction.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "common/model/ModelRow.h"
#include "common/node/EnergyUtil.h"
#include "tools/easctl/model/MeasurementFile.h"

namespace easctl {

constexpr std::size_t kernel_count = EnergyUtil::COEFNUM;
using Points = std::array<double, kernel_count>;

/// One of the two fits at one frequency. What is not finite is left as it is.
struct Fit {
    Points measured{};
    Points predicted{};
    std::array<double, 3> factors{};  // of the first predictor, of the lines, constant
    double r_squared = 1;             // part of the variation that the fit explains
    double rms_residual = 0;          // in the unit of what was measured
    double worst_percent = 0;         // largest error of a kernel, in percent of what was measured
    std::size_t worst_kernel = 0;
    double independence = 1;  // 1 - r^2 of the two predictors; 0: the system is singular

    [[nodiscard]] double residual(std::size_t kernel) const {
        return measured[kernel] - predicted[kernel];
    }
};

struct FrequencyFit {
    int khz = 0;
    bool is_default = false;
    Fit power;  // W
    Fit pace;   // cycles per instruction
    std::vector<std::string> warnings;
    std::string unusable;  // why the row must not be stored; empty when it may

    /// All zero for the default frequency.
    [[nodiscard]] eas::ModelRow as_model_row() const;
};

struct ModelFit {
    int default_khz = 0;
    std::string default_from;  // how the default frequency was found
    std::vector<std::string> kernels;
    std::vector<FrequencyFit> rows;  // by frequency, ascending

    [[nodiscard]] bool usable() const;
    [[nodiscard]] bool doubtful() const;
};

struct FitLimits {
    double lowest_r_squared = 0.75;
    double largest_error_percent = 5;
};

/// `default_khz`: 0 for the nominal frequency that the file states, else its highest one. Throws
/// Failure, with file and line, when a kernel or a combination is missing.
ModelFit fit_model(const MeasurementFile& file, int default_khz, const FitLimits& limits);

/// The coefficient file: a row per frequency that reads back to the same bits, with the quality of
/// each as a comment.
std::string coefficient_text(const ModelFit& model, const std::string& source);

}  // namespace easctl
