// What the reader of a threshold file makes of its lines, for a program that tells its user.
#pragma once

#include <string_view>

namespace eas {

enum class LineVerdict {
    // Lines that count.
    limit,   // of minimize_energy
    demand,  // of minimize_time, at `frequency`
    // Lines that are dropped.
    outside,                // of both sections
    no_assignment,          // not of the form KEY = VALUE
    unknown_key,            //
    no_pair,                // not of the form FREQUENCY VALUE
    no_number,              // `text` is not a plain number
    limit_below_zero,       //
    demand_not_below_zero,  //
    no_frequency,           // `text` is not one
    unknown_frequency,      // `text` is read as `frequency`, which the set does not have
    not_above_default,      // nor may `text` be at it
    limit_given_before,     // in line `other`
    demand_given_again,     // for the same frequency, in line `other`
    // What is wrong with a section; the line is the one that opens it, unless another is named.
    no_limit,      // which then is 0
    no_header,     // in the section's first line
    never_closed,  // by a line `text`
    empty,         //
    no_demand,     // no line counts
    climbs,        // above 0, beyond the highest frequency given, in this line
    // And with the file.
    no_time_section,  // which this set needs; line 0
    rest_unread,      // from this line on: both sections are closed
};

struct LineRemark {
    LineVerdict verdict;
    int line;               // counted from 1; 0 for the whole file
    std::string_view text;  // valid until hear() returns
    int frequency;          // kHz
    int other;              // another line
};

class ThresholdListener {
  public:
    /// Called in the thread that reads, mostly in the order of the lines: those of a section when
    /// it is closed.
    virtual void hear(const LineRemark& remark) = 0;

  protected:
    ThresholdListener() = default;
    ThresholdListener(const ThresholdListener&) = default;
    ThresholdListener& operator=(const ThresholdListener&) = default;
    ~ThresholdListener() = default;
};

}  // namespace eas
