// What past jobs would have cost under each policy: sums per job class, never a job by itself.
//
// Every job is predicted and its frequency selected by the library's own functions, as if it had
// had a tag of exactly its own figures. A frequency that is not the default's costs what the
// prediction says; the default one what was measured.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "tools/easctl/tag/JobsFile.h"

namespace easctl {

/// A policy under one set of thresholds.
struct Scenario {
    std::string policy;
    std::optional<double> limit_pct;  // of a sweep; no value where a file gives the thresholds
    EnergyPerfThreshold thresholds;
};

/// The thresholds of one step of a sweep: minimize_energy may lose `percent` of the time;
/// minimize_time must gain `percent` at the top frequency and, as where a threshold file names only
/// that one, proportionally less at those below it. `coeffs` must outlive them.
EnergyPerfThreshold swept_thresholds(CoEfficients& coeffs, double percent);

struct Cost {
    double energy_j = 0.0;
    double time_s = 0.0;
};

struct ClassSums {
    std::uint64_t jobs = 0;  // rows of the file
    std::uint64_t runs = 0;
    Cost measured;
    std::vector<Cost> by_scenario;            // in the order of the scenarios
    std::vector<std::uint64_t> changed_runs;  // at another frequency than the default one

    void add(const ClassSums& other);
};

/// The sums of a class, or of all.
struct NamedSums {
    std::string name;
    ClassSums sums;
};

/// The change from `before`, in percent.
double change_pct(double after, double before);
/// Each policy once, in the order of the scenarios.
std::vector<std::string> policies_of(const std::vector<Scenario>& scenarios);
/// Places of the scenarios of one policy.
std::vector<std::size_t> scenarios_of(const std::vector<Scenario>& scenarios,
                                      const std::string& policy);

class Savings {
  public:
    /// Those that come later in the file are summed up as one, so that memory stays bounded.
    static constexpr std::size_t most_classes = 1000;
    static constexpr const char* other_classes = "(other)";

    /// `coeffs` must have a default frequency and outlive this.
    Savings(const CoEfficients& coeffs, std::vector<Scenario> scenarios);

    /// False when the figures of the job allow no prediction; nothing is added then.
    bool add(const JobRow& job);

    [[nodiscard]] const std::vector<Scenario>& scenarios() const { return scenarios_; }
    [[nodiscard]] const std::map<std::string, ClassSums, std::less<>>& classes() const {
        return classes_;
    }
    [[nodiscard]] ClassSums total() const;
    /// Jobs of classes beyond most_classes.
    [[nodiscard]] std::uint64_t other_jobs() const { return other_jobs_; }

  private:
    ClassSums& sums_of(std::string_view job_class);

    const CoEfficients& coeffs_;
    std::vector<Scenario> scenarios_;
    std::map<std::string, ClassSums, std::less<>> classes_;
    std::uint64_t other_jobs_ = 0;
    EnergyTag tag_;  // of the latest job; kept for its memory
};

}  // namespace easctl
