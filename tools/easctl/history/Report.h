// The figures of a report, as text, CSV and JSON: what was measured, what was predicted, and how
// far the predictions can be trusted.
#pragma once

#include <optional>
#include <string>

#include "tools/easctl/cli/Output.h"
#include "tools/easctl/history/RunSums.h"

namespace easctl {

/// What a kWh costs and emits, as the site says; nothing is assumed.
struct Factors {
    std::optional<double> price;  // of a kWh
    std::string currency;
    std::optional<double> co2_g;  // of a kWh
};

struct Report {
    std::string group;  // what the groups are: "month", "user", ...
    Factors factors;
    RunGroups groups;
    RunCounts counts;
    std::optional<double> first;  // end of the first run, s since 1970
    std::optional<double> last;

    void add(const Run& run);

    /// "2026-11-01 to 2026-11-22"; empty without runs that have a time.
    [[nodiscard]] std::string period() const;
    /// How many runs could be measured, compared and checked, and how far predictions missed: whole
    /// sentences.
    [[nodiscard]] std::vector<std::string> coverage() const;
    [[nodiscard]] Table table() const;
    [[nodiscard]] std::string text(bool colored) const;
    [[nodiscard]] std::string csv() const;
    [[nodiscard]] Json json() const;
};

/// A figure of kWh, from joules.
std::string kwh_text(double joules);

}  // namespace easctl
