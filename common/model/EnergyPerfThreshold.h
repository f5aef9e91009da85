// The site's performance thresholds: how much slower a job may become to save energy, and how much
// faster it must become at each frequency above the default one.
//
//   # a comment
//   Begin Min_Energy
//   THRESHOLD_RUNTIME_VAR = 5
//   End Min_Energy
//   Begin Min_Time
//   CPU_FREQ RUNTIME_VAR
//   2.6GHz -5
//   2800MHz -8
//   End Min_Time
//
// Values in the file are percentages. What the time section leaves out is interpolated over the
// frequencies of the coefficient set. Built by one thread, only read afterwards.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/model/CoEfficients.h"

namespace eas {
class ThresholdListener;
}

namespace eas::threshold_keyword {

inline constexpr std::string_view EBEG = "Begin Min_Energy";
inline constexpr std::string_view EEND = "End Min_Energy";
inline constexpr std::string_view TBEG = "Begin Min_Time";
inline constexpr std::string_view TEND = "End Min_Time";
inline constexpr std::string_view TKEY = "THRESHOLD_RUNTIME_VAR";
inline constexpr std::string_view FREQ = "CPU_FREQ";
inline constexpr std::string_view TVAR = "RUNTIME_VAR";
inline constexpr std::string_view FREQ_TVAR = "CPU_FREQ RUNTIME_VAR";

}  // namespace eas::threshold_keyword

class EnergyPerfThreshold {
  public:
    EnergyPerfThreshold() = default;
    /// Reads `file` against `coefficients`, which is not owned and must outlive the reading;
    /// without a set no time section is valid.
    EnergyPerfThreshold(CoEfficients* coefficients, const char* file);
    EnergyPerfThreshold(const EnergyPerfThreshold&) = default;
    ~EnergyPerfThreshold() = default;

    /// Keeps this object's own isAllCommentOut(). When memory is short this throws and leaves the
    /// object as it was.
    EnergyPerfThreshold& operator=(EnergyPerfThreshold& other);

    /// Both sections were read, or are absent and have a default.
    bool isValid() const { return valid; }
    /// The file holds nothing but comments, or cannot be opened.
    bool isAllCommentOut() const { return all_comment_out; }
    /// The limit of minimize_energy, in percent.
    double get_def_perf() const { return perf_threshold; }
    /// The run-time change that minimize_time demands at each frequency (kHz) from the default one
    /// up: fractions, at most 0.
    const std::map<int, double>& getThresValue() const { return thresval; }

    /// The outcome is isValid() and isAllCommentOut().
    void readThresholds(const char* file);
    /// The same for an open stream. `listener`, which may be null, hears of every line that counts
    /// or is dropped, and why.
    void parseThresholds(std::FILE* stream, eas::ThresholdListener* listener = nullptr);

    // The steps of reading; 0 on success. Lines are trimmed and hold no comment.

    /// Takes the limit of minimize_energy, 0.0 when no line gives one; not 0 without any line.
    int get_perf_threshold(const std::vector<std::string>& lines);
    int get_time_threshhold(const std::vector<std::string>& lines);
    /// Completes `values` (percent by frequency, the default's included) over the frequencies of
    /// the set and stores them as fractions.
    int linearData(std::map<int, double>& values);
    /// Accepts a frequency of the set above the default one; `freq` is not meaningful otherwise.
    int get_freq(const std::string& str, int& freq) const;
    /// kHz; 0 when the unit does not occur, negative for a bad number.
    int get_freq_by_unit(const std::string& str, const std::string& unit) const;
    /// Accepts a number below 0; `tv` is 0.0 otherwise.
    int get_timevar(const std::string& str, double& tv) const;

    /// Appends the outcome to a debug file when the administrator asked for it.
    void displayThresholds() const;

  private:
    struct Section;
    class Report;
    struct Reading;
    int take_line(const char* text, Reading& reading);
    void default_missing(Reading& reading);
    int take_limit(const std::vector<std::string>& lines, const Report& report);
    int take_demands(const std::vector<std::string>& lines, const Report& report);
    int convert(const std::map<int, double>& values);

    bool valid = false;
    double perf_threshold = 0.0;
    std::map<int, double> thresval;
    CoEfficients* coeffs = nullptr;
    bool all_comment_out = false;
};
