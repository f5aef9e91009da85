#include "tools/easctl/tag/TagOrigin.h"

#include <cmath>
#include <limits>
#include <optional>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyTag.h"

namespace easctl {
namespace {

// A driver may cut doubles to 15 digits; a model that was fitted anew differs in the first four.
constexpr double same_power = 1e-6;
constexpr double same_seconds = 1e-3;  // s

struct Predicted {
    eas::TagRow row;
    eas::ModelRow model;
};

/// The rows of both, without the measured one; no value when their frequencies differ.
std::optional<std::vector<Predicted>> predicted_rows(const EnergyTag& tag,
                                                     const CoEfficients& coeffs) {
    std::vector<Predicted> rows;
    if (tag.rows().size() != coeffs.rows().size())
        return std::nullopt;
    for (const eas::TagRow& row : tag.rows()) {
        const int index = coeffs.getCoeffFreqIndex(row.frequency);
        if (index < 0)
            return std::nullopt;
        if (row.frequency != tag.default_frequency())
            rows.push_back({row, coeffs.row(static_cast<std::size_t>(index))});
    }
    return rows;
}

/// The memory traffic that explains all powers, or no value; NaN where it does not count.
std::optional<double> common_traffic(const std::vector<Predicted>& rows, double watts) {
    double up = 0.0;
    double down = 0.0;
    for (const auto& [row, model] : rows) {
        up += model.factors[1] * (row.power - model.power(watts, 0.0));
        down += model.factors[1] * model.factors[1];
    }
    const double lines = down > 0.0 ? up / down : 0.0;
    for (const auto& [row, model] : rows) {
        const double scale = std::fabs(row.power) + std::fabs(model.power(watts, 0.0));
        if (!(std::fabs(model.power(watts, lines) - row.power) <= same_power * scale))
            return std::nullopt;
    }
    if (down > 0.0)
        return lines;
    return std::numeric_limits<double>::quiet_NaN();
}

/// Whether one pace explains all run times.
bool has_common_pace(const std::vector<Predicted>& rows, double lines,
                     const eas::TagRow& measured) {
    double low = 0.0;  // of 1 / pace
    double high = std::numeric_limits<double>::infinity();
    for (const auto& [row, model] : rows) {
        const double unit = static_cast<double>(measured.seconds) * measured.frequency /
                            static_cast<double>(row.frequency);
        const double slope = model.factors[4] * lines + model.factors[5];
        double from = (row.seconds - same_seconds) / unit - model.factors[3];
        double to = (row.seconds + 1 + same_seconds) / unit - model.factors[3];
        if (slope == 0.0) {
            if (from > 0.0 || to < 0.0)
                return false;
            continue;
        }
        if (slope < 0.0)
            std::swap(from, to);
        low = std::max(low, from / slope);
        high = std::min(high, to / slope);
    }
    return low <= high;
}

}  // namespace

const char* name_of(TagOrigin origin) noexcept {
    switch (origin) {
        case TagOrigin::present_model:
            return "present";
        case TagOrigin::other_model:
            return "other";
        case TagOrigin::unclear:
            return "unclear";
    }
    return "unclear";
}

TagOrigin origin_of(const EnergyTag& tag, const CoEfficients& coeffs) {
    const auto rows = predicted_rows(tag, coeffs);
    const auto measured = tag.row_of(tag.default_frequency());
    if (!rows || !measured || coeffs.getDefaultFrequency() != tag.default_frequency())
        return TagOrigin::other_model;
    const auto lines = common_traffic(*rows, measured->power);
    if (!lines || (!std::isnan(*lines) && !has_common_pace(*rows, *lines, *measured)))
        return TagOrigin::other_model;
    return rows->size() < 2 ? TagOrigin::unclear : TagOrigin::present_model;
}

}  // namespace easctl
