// Runs as a CSV file: what easctl history writes, and every command that takes jobs or runs reads.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/easctl/history/RunReader.h"

namespace easctl {

/// Whether a header names the column "outcome": rows are runs then, whole or not, and no list of
/// jobs.
bool is_run_csv_header(std::string_view line);

class RunCsv : public RunForm {
  public:
    /// Throws Failure when the header names a column twice.
    explicit RunCsv(LineReader lines);

    Step next(Run& run) override;
    [[nodiscard]] const LineReader& lines() const override { return csv_.lines(); }

  private:
    bool take(Run& run);
    bool take_number(std::optional<std::size_t> place, const char* name,
                     std::optional<double>& figure);

    CsvFile csv_;
    std::vector<std::optional<std::size_t>> places_;  // of the columns, in the order of the table
    std::optional<std::size_t> power_;
};

/// The header line, and the line of a run, each with its end. What was read as "power_w" is written
/// as it is, so that a reader of jobs finds it; "energy_j" holds the joules to the last bit.
std::string run_csv_header();
std::string run_csv_line(const Run& run);

/// The members of a run by the names of their columns, in that order: `text` and `figure` are
/// called with each.
void for_each_member(const Run& run,
                     const std::function<void(const char* name, const std::string&)>& text,
                     const std::function<void(const char* name, double)>& figure);

}  // namespace easctl
