// Ordinary least squares with two predictors over seven samples, in the order of evaluation that
// calibration results are compared in.
#include <array>
#include <new>

#include "common/node/EnergyUtil.h"

namespace {

constexpr double samples = 7.0;
static_assert(EnergyUtil::COEFNUM == 7, "the divisor and the sums go together");

struct Sums {
    double y = 0, x1 = 0, x2 = 0;
    double x1x1 = 0, x2x2 = 0;
    double yx1 = 0, yx2 = 0, x1x2 = 0;
};

Sums raw_sums(const std::vector<double>& Y, const std::vector<double>& X1,
              const std::vector<double>& X2) {
    Sums sums;
    for (std::size_t i = 0; i < EnergyUtil::COEFNUM; ++i) {
        sums.y += Y[i];
        sums.x1 += X1[i];
        sums.x2 += X2[i];
        sums.x1x1 += X1[i] * X1[i];
        sums.x2x2 += X2[i] * X2[i];
        sums.yx1 += Y[i] * X1[i];
        sums.yx2 += Y[i] * X2[i];
        sums.x1x2 += X1[i] * X2[i];
    }
    return sums;
}

double centred(double sum_of_products, double sum_a, double sum_b) {
    return sum_of_products + sum_a * sum_b / -samples;
}

// b1, b2, b0.
std::array<double, 3> fit(const Sums& sums) {
    const double sum_x1_square = centred(sums.x1x1, sums.x1, sums.x1);
    const double sum_x2_square = centred(sums.x2x2, sums.x2, sums.x2);
    const double yx1_sum = centred(sums.yx1, sums.y, sums.x1);
    const double yx2_sum = centred(sums.yx2, sums.y, sums.x2);
    const double x1x2_sum = centred(sums.x1x2, sums.x1, sums.x2);
    const double y_avg = sums.y / samples;
    const double x1_avg = sums.x1 / samples;
    const double x2_avg = sums.x2 / samples;
    const double determinant = sum_x1_square * sum_x2_square - x1x2_sum * x1x2_sum;
    const double b1 = (yx1_sum * sum_x2_square - yx2_sum * x1x2_sum) / determinant;
    const double b2 = (yx2_sum * sum_x1_square - yx1_sum * x1x2_sum) / determinant;
    const double b0 = y_avg - b1 * x1_avg - b2 * x2_avg;
    return {b1, b2, b0};
}

}  // namespace

int EnergyUtil::cal_coefficients(const std::vector<double>& Y, const std::vector<double>& X1,
                                 const std::vector<double>& X2, std::vector<double>& res) {
    if (Y.size() < COEFNUM || X1.size() < COEFNUM || X2.size() < COEFNUM)
        return -1;
    const std::array<double, 3> coefficients = fit(raw_sums(Y, X1, X2));
    try {
        res.insert(res.end(), coefficients.begin(), coefficients.end());
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 1;
}
