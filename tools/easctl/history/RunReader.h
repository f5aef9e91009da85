// Runs of the past, one by one in constant memory, from any of three forms, told by the first line:
//
//   accounting   what "sacct --parsable2" prints: columns apart by "|", named by the header line;
//   the
//                record of the run stands in AdminComment. Steps ("12.0") are no runs.
//   records      a line for each run: the record, with the words cluster, job, user and start
//   CSV          as easctl history writes it, or a file of jobs (see tag/JobsFile.h)
//
// For one thread.
#pragma once

#include <memory>
#include <string>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/history/Run.h"

namespace easctl {

/// A reader of one form.
class RunForm {
  public:
    enum class Step { run, no_record, bad, end };

    RunForm() = default;
    virtual ~RunForm() = default;
    RunForm(const RunForm&) = delete;
    RunForm& operator=(const RunForm&) = delete;

    /// After `run`, `run` holds it; after `bad`, problem() says what is wrong with the line.
    virtual Step next(Run& run) = 0;
    [[nodiscard]] virtual const LineReader& lines() const = 0;
    [[nodiscard]] const std::string& problem() const { return problem_; }
    /// "FILE:LINE" of the latest line.
    [[nodiscard]] std::string where() const;

  protected:
    std::string problem_;
};

/// Whether a first line is the header of a CSV file.
bool is_csv_header(std::string_view line);

/// Throws Failure when the file is empty, or its first line is of none of the forms.
std::unique_ptr<RunForm> read_runs(LineReader lines);

}  // namespace easctl
