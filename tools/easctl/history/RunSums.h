// What runs used and saved, in sums: of all, of a group, of a day. Energies in J, times in s of run
// time; a row that stands for several runs counts as often.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>

#include "tools/easctl/history/Run.h"

namespace easctl {

/// How far measurements lay from predictions, in bins of half a percent: memory stays the same, and
/// what is told of it is an upper limit, never too good.
class MissSpread {
  public:
    /// A fraction of the prediction, of either sign; of so many runs.
    void add(double miss, double runs);
    void add(const MissSpread& other);
    /// The smallest bin limit, in percent, within which this part of the runs lies; no value
    /// without runs, and where that is above 100 %.
    [[nodiscard]] std::optional<double> within_pct(double part) const;

  private:
    static constexpr std::size_t bins_per_pct = 2;
    std::array<double, 100 * bins_per_pct + 1> bins_{};  // the last: above 100 %
    double count_ = 0;
};

/// What was measured of some runs, and what was predicted for the same ones.
struct Pair {
    double runs = 0;
    double measured_j = 0, measured_s = 0;
    double predicted_j = 0, predicted_s = 0;

    void add(const Run& run, double joules, double seconds);
    void add(const Pair& other);
    [[nodiscard]] double saved_j() const { return predicted_j - measured_j; }
    [[nodiscard]] double added_s() const { return measured_s - predicted_s; }
    /// In percent of the prediction; no value without runs.
    [[nodiscard]] std::optional<double> saved_pct() const;
    [[nodiscard]] std::optional<double> added_pct() const;
};

struct RunSums {
    double runs = 0;
    double failed_runs = 0;
    double measured_runs = 0;
    double energy_j = 0;  // measured, of those
    double time_s = 0;    // the same
    Pair compared;        // runs at a selected frequency, and the default one by their tags
    Pair checked;         // runs, and what their tags predicted for them
    MissSpread energy_miss;
    MissSpread time_miss;

    void add(const Run& run);
    void add(const RunSums& other);
    /// Whether the predictions missed by less, all in all, than what they say was saved; no value
    /// where nothing was checked or compared.
    [[nodiscard]] std::optional<bool> saving_exceeds_miss() const;
};

enum class GroupBy { month, user, tag, job_class, policy };

/// Sums per group, in the order of their names.
class RunGroups {
  public:
    /// Those that come later are summed up as one, so that memory stays bounded.
    static constexpr std::size_t most_groups = 1000;
    static constexpr const char* other_groups = "(other)";
    static constexpr const char* no_name = "(none)";

    explicit RunGroups(GroupBy by) : by_(by) {}
    void add(const Run& run);
    [[nodiscard]] const std::map<std::string, RunSums, std::less<>>& groups() const {
        return groups_;
    }
    [[nodiscard]] RunSums total() const;

  private:
    [[nodiscard]] std::string name_of(const Run& run) const;

    GroupBy by_;
    std::map<std::string, RunSums, std::less<>> groups_;
};

}  // namespace easctl
