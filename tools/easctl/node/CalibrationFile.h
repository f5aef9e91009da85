// The file that a calibration writes, run by run, so that it can be interrupted at any time: each
// line is on the disk before the next run begins, and what is there is not measured again.
#pragma once

#include <set>
#include <string>
#include <utility>

#include "base/UniqueFd.h"
#include "tools/easctl/model/MeasurementFile.h"

namespace easctl {

/// What all lines of a file have in common.
struct CalibrationNode {
    int nominal_khz;
    std::string cpus;  // on which the kernels ran
    std::string host;
    std::string meter;  // see meter_text
};

class CalibrationFile {
  public:
    /// Creates the file, or goes on with one. A line that was not written to its end is dropped.
    /// Throws Failure when it is another kind of file, of another node, in use, or not writable.
    CalibrationFile(std::string path, CalibrationNode node);

    [[nodiscard]] bool has(const std::string& kernel, int khz) const {
        return done_.count({kernel, khz}) != 0;
    }
    /// Appends a line and waits until it is on the disk.
    void add(const std::string& kernel, int khz, const KernelRun& run);

  private:
    void drop_partial_line();
    void read_rows();
    void append(const std::string& line);

    std::string path_;
    CalibrationNode node_;
    eas::UniqueFd file_;
    std::set<std::pair<std::string, int>> done_;
};

}  // namespace easctl
