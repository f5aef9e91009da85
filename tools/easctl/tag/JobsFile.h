// Past jobs of a CSV file: what their counters and meters said.
//
// Columns, found by their names in the header, in any order; others are ignored:
//   user, tag, job_id   whose tag it is, and the job that it was measured on
//   cycles, instructions, memory_bytes   hardware counters of the run
//   elapsed_s           run time; what is below a whole second is cut off, as schedulers do
//   power_w             mean power of a node
//   frequency_khz       at which the job ran; who needs no frequency may leave it empty
//   count               how often such a job ran (1), a whole number
//   class               the kind of job that totals are wanted for
//   meter               what measured it, as of a calibration: the same in all rows
//
// Instead of a CSV file, the output of sacct or a file of records is read, too
// (history/RunReader.h): runs that ended otherwise than wanted, that were not measured, or lack
// what is needed, are passed over and counted.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/history/RunReader.h"

namespace easctl {

/// One job. The texts are valid until the next row; those that nobody needs are empty.
struct JobRow {
    std::string_view user;
    std::string_view tag;
    std::string_view job_id;
    std::string_view job_class;
    std::array<double, 3> counters{};  // cycles, instructions, bytes of memory traffic
    bool has_counters = false;
    int elapsed_s = 0;
    double power_w = 0.0;
    int frequency_khz = 0;  // 0: not stated
    std::uint64_t count = 1;
};

class JobsFile {
  public:
    /// What a row must have beside run time and power.
    enum Needs : unsigned { names = 1, job = 2, counters = 4, frequency = 8 };

    /// Throws Failure when the file cannot be read or the header lacks a column that is needed.
    /// `class_column` names the column of the class; it may be missing when it is "class".
    JobsFile(std::string path, unsigned needs, const std::string& class_column = "class");

    /// From now on a row of another frequency is a bad one.
    void require_frequency(int khz) { only_khz_ = khz; }
    /// From now on a row of another meter is a bad one; by default the first row's meter counts.
    void require_meter(const std::string& meter) { only_meter_ = meter; }
    /// After `bad_row`, problem() says what is wrong, with file and line.
    CsvFile::Step next(JobRow& row);
    [[nodiscard]] std::string problem() const { return where() + ": " + problem_; }
    /// The same without them.
    [[nodiscard]] const std::string& reason() const { return problem_; }
    [[nodiscard]] std::string where() const { return runs_ ? runs_->where() : csv_->where(); }
    [[nodiscard]] const LineReader& lines() const { return runs_ ? runs_->lines() : csv_->lines(); }
    [[nodiscard]] bool has_classes() const { return runs_ || class_.has_value(); }
    /// Of records: how many were passed over.
    [[nodiscard]] std::uint64_t passed_over() const { return passed_over_; }

  private:
    using Place = std::optional<std::size_t>;

    void open_csv(LineReader lines, const std::string& class_column);
    Place find(const char* name, bool needed) const;
    CsvFile::Step next_run(JobRow& row);
    bool take_run(JobRow& row);
    bool text(Place place, const char* name, std::string_view& value);
    bool number(Place place, const char* name, double& value);
    bool whole(Place place, const char* name, double smallest, double largest, double& value,
               bool cut = false);
    bool take_names(JobRow& row);
    bool take_counters(JobRow& row);
    bool take_figures(JobRow& row);
    bool take_frequency(JobRow& row);
    bool take_meter(std::string_view meter);

    std::optional<CsvFile> csv_;     // or
    std::unique_ptr<RunForm> runs_;  // one of them
    Run run_;                        // the latest
    std::uint64_t passed_over_ = 0;
    Place user_, tag_, job_, class_;
    std::array<Place, 3> counters_;
    Place elapsed_, power_, frequency_, count_, meter_;
    unsigned needs_;
    int only_khz_ = 0;
    std::string only_meter_;
    std::string problem_;
};

}  // namespace easctl
