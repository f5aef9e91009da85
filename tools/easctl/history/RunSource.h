// Where a command takes its runs from: a file, standard input, or sacct for a period; and which of
// them it wants.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/history/RunReader.h"
#include "tools/easctl/history/SacctCall.h"

namespace easctl {

struct RunOptions {
    std::string file;  // empty: sacct
    std::string from;
    std::string to;
    std::string cluster;  // of accounting; empty: all

    /// Adds the file under `names` ("RUNS", or an option beside others), --from and --to.
    void add_to(CLI::App& command, const std::string& names);
    /// Adds --cluster, where it is not that of a model.
    void add_cluster_to(CLI::App& command);
    /// Whether there is any source.
    [[nodiscard]] bool given() const { return !file.empty() || !from.empty(); }
};

/// A time of a person: YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS (both of this machine's time zone), seconds
/// since 1970, or a span before now such as 90d. Throws Failure for any other text.
double parse_moment(const std::string& text);
/// A span such as 36h, 90d, 26w or 2y, in seconds. Throws Failure for any other text.
double parse_span(const std::string& text);
/// "2026-11-22", of this machine's time zone; "2026-11" with `month` only.
std::string day_of(double moment, bool month = false);

/// The runs, in the order of the source. A run belongs to the period in which it ended.
class RunSource {
  public:
    /// Throws Failure when no source is given, or it cannot be read.
    RunSource(const Globals& globals, RunOptions options);

    /// The next run; false at the end. Lines that cannot be read are named and counted.
    bool next(Run& run);
    [[nodiscard]] const RunCounts& counts() const { return counts_; }
    /// Says what was left out, and lets the command end with `found` when lines were unreadable.
    void finish(Globals& globals);
    [[nodiscard]] std::string where() const { return form_ ? form_->where() : "sacct"; }
    [[nodiscard]] bool from_sacct() const { return options_.file.empty(); }
    void hide_progress() { progress_.hide(); }

  private:
    bool open_next_window();
    bool read_next(Run& run);
    [[nodiscard]] bool is_wanted(const Run& run) const;
    void complain_of_line();
    void show_progress();

    RunOptions options_;
    double from_ = 0;
    double to_ = 0;
    double window_from_ = 0;  // of the call of sacct that is read
    double window_to_ = 0;
    std::unique_ptr<SacctCall> call_;
    std::unique_ptr<RunForm> form_;
    Progress progress_;
    RunCounts counts_;
    unsigned long lines_ = 0;
};

}  // namespace easctl
