// One run of the past: what the record of it says, and what accounting knows beside that.
#pragma once

#include <optional>
#include <string>

#include "adapters/job/RunRecord.h"

namespace easctl {

/// Figures that are not known have no value; they are never 0. Units as in the record: kHz, s, J.
struct Run : eas::job::RunRecord {
    std::optional<double> end;    // s since 1970, UTC
    std::optional<double> count;  // how many such runs the row stands for; none: one
    std::string job_class;        // account of the job, or the class of a CSV file

    [[nodiscard]] double runs() const { return count.value_or(1.0); }
    /// When it ended, or where that is not known, when it began.
    [[nodiscard]] std::optional<double> when() const;
    /// Mean of a node, W.
    [[nodiscard]] std::optional<double> watts() const;
    /// At the frequency that a policy selected.
    [[nodiscard]] bool is_used() const { return outcome == "used"; }
    /// Whether energy and time were measured.
    [[nodiscard]] bool is_measured() const { return is_above_0(joules) && is_above_0(seconds); }
    /// Whether they can be held beside what the tag predicted for this very run.
    [[nodiscard]] bool can_be_checked() const {
        return is_measured() && is_above_0(predicted_joules) && is_above_0(predicted_seconds);
    }
    /// Whether they can be held beside what the tag predicted for the default frequency.
    [[nodiscard]] bool can_be_compared() const {
        return is_used() && is_measured() && is_above_0(default_joules) &&
               is_above_0(default_seconds);
    }

  private:
    static bool is_above_0(const std::optional<double>& figure) { return figure && *figure > 0.0; }
};

/// How many runs, or rows of a file, came to what.
struct RunCounts {
    unsigned long runs = 0;
    unsigned long without_record = 0;  // jobs of accounting
    unsigned long outside = 0;         // of the period, or of the choice
    unsigned long unreadable = 0;
};

}  // namespace easctl
