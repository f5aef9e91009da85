// The measurements of a calibration: for each kernel and frequency power, run time, cycles,
// instructions and memory traffic of the node. A CSV file whose header names, in any order, the
// columns of `measurement_columns`; others are left alone, but for the optional "nominal_khz" and
// "meter".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/model/JobMetrics.h"

namespace easctl {

/// One run, or several of the same kernel at the same frequency taken together: their times and
/// counts added, their power averaged over time.
struct KernelRun {
    double elapsed_s = 0;
    double power_w = 0;
    double cycles = 0;
    double instructions = 0;
    double memory_bytes = 0;
    int runs = 0;

    void add(const KernelRun& other);
    [[nodiscard]] double cycles_per_instruction() const { return CPI(cycles, instructions); }
    [[nodiscard]] double lines_per_instruction() const {
        return eas::lines_per_instruction(memory_bytes, instructions);
    }
};

constexpr std::array<const char*, 7> measurement_columns = {
    "kernel", "frequency_khz", "elapsed_s", "power_w", "cycles", "instructions", "memory_bytes"};

class MeasurementFile {
  public:
    /// Throws Failure, with file and line, for what is no measurement.
    explicit MeasurementFile(const std::string& path);

    struct KernelName {
        std::string name;
        std::uint64_t line;  // where it comes first
    };

    [[nodiscard]] const std::string& path() const { return path_; }
    /// In the order in which they first appear.
    [[nodiscard]] const std::vector<KernelName>& kernels() const { return kernels_; }
    /// kHz, each with the line where it comes first; ascending.
    [[nodiscard]] const std::map<int, std::uint64_t>& frequencies() const { return frequencies_; }
    /// What every line of the column nominal_khz says; 0 without it.
    [[nodiscard]] int nominal_khz() const { return nominal_khz_; }
    /// What measured every line, as the column meter says; empty without it.
    [[nodiscard]] const std::string& meter() const { return meter_; }
    /// Null when this kernel was not run at this frequency.
    [[nodiscard]] const KernelRun* find(std::size_t kernel, int khz) const;

  private:
    class Reader;

    std::string path_;
    std::vector<KernelName> kernels_;
    std::map<int, std::uint64_t> frequencies_;
    std::map<std::pair<std::size_t, int>, KernelRun> runs_;
    int nominal_khz_ = 0;
    std::string meter_;
};

}  // namespace easctl
