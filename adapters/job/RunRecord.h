// RunRecord.h - what one run of a job used and what was expected of it, as one line of text that a
// scheduler's accounting keeps:
//
//     eas=1 outcome=used tag=solve policy=minimize_energy frequency=1800000 nodes=2 seconds=61.2
//     ...
//
// Words "key=value" apart by one blank; the word "eas=1" (the format) begins the record, the end of
// the text or a semicolon ends it. Bytes of a value that are no letter, digit or one of "_.:+,/@-"
// stand as "%" and two hexadecimal digits. A figure that is not known has no word; it is never 0.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace eas::job {

struct RunRecord {
    // Whose run it was. Accounting knows this by itself: only a file of records has these words.
    std::string cluster;
    std::string job;
    std::string user;
    std::optional<double> start;  // s since 1970, UTC

    /// "measured" (its tag was made), "used" (ran at the selected frequency), "observed" (counted,
    /// nothing was set) or "failed" (ended otherwise than its user wanted; see reason).
    std::string outcome;
    std::string reason;  // why no tag was made, or the frequency not set; empty: no reason
    std::string tag;
    std::string policy;                       // empty: none
    std::string type;                         // of the nodes; empty: the cluster has one type
    std::string meter;                        // source of the joules and what it covers
    std::optional<double> frequency;          // kHz, at which the run's nodes were set
    std::optional<double> default_frequency;  // kHz
    std::optional<double> nodes;
    std::optional<double> seconds;  // measured
    std::optional<double> joules;   // measured, all nodes together
    std::optional<double> spread;   // of the nodes' joules: (highest - lowest) / mean
    std::optional<double> cycles;   // these three: mean of the nodes
    std::optional<double> instructions;
    std::optional<double> bytes;  // of memory traffic
    // By the tag's predictions: at the frequency of the run, and at the default frequency.
    std::optional<double> predicted_seconds;
    std::optional<double> predicted_joules;  // all nodes together, as the next but one
    std::optional<double> default_seconds;
    std::optional<double> default_joules;
};

/// One of its figures.
using RunFigure = std::optional<double> RunRecord::*;

/// A text as the value of a word, and back; what is no escape stays as it is.
std::string to_word(std::string_view text);
std::string from_word(std::string_view word);

/// The record as words, without a line end.
std::string to_text(const RunRecord& record);

/// The first record in a text that may hold other words before and behind it; none when there is
/// no record of this format. Words with an unknown key, and figures that are no finite number of
/// zero or more, are passed over.
std::optional<RunRecord> find_record(std::string_view text);

/// `text` with its record replaced by `record`, or with `record` behind all that it holds ("; "
/// between them).
std::string with_record(std::string_view text, const RunRecord& record);

}  // namespace eas::job
