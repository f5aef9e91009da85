// An energy policy tag: what one job is predicted to do at every frequency of its cluster.
//
// Frequencies are in kHz, power is the mean of a node in W, times are in s, and the changes against
// the measured run are fractions (0.25 is 25 %; a negative energy change is a saving, a positive
// run-time change a slow-down). A tag is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/model/ParallelArrays.h"
#include "common/model/TagRow.h"

class EnergyTag {
  public:
    EnergyTag() = default;
    /// An empty tag filled by genEnergyTag.
    EnergyTag(const CoEfficients* myCoEff, const char* clustername, const char* user,
              const char* jid, const char* tagname, double power_consumed, int elapse_time,
              double gbs, double gips, double cpi);
    EnergyTag(const EnergyTag&) = default;
    EnergyTag(EnergyTag&&) noexcept = default;
    ~EnergyTag() = default;

    /// When memory is short this throws and leaves the tag as it was.
    EnergyTag& operator=(const EnergyTag& other);
    EnergyTag& operator=(EnergyTag&&) noexcept = default;

    /// A tag is identified by cluster, name, user and default frequency: job, time and rows are
    /// not compared.
    bool operator==(const EnergyTag& etag) const;

    const std::string& cluster_name() const { return _cluster_name; }
    void cluster_name(const std::string& name) { _cluster_name = name; }
    const std::string& energy_tag_name() const { return _energy_tag_name; }
    void energy_tag_name(const std::string& name) { _energy_tag_name = name; }
    const std::string& job_step_id() const { return _job_step_id; }
    void job_step_id(const std::string& id) { _job_step_id = id; }
    const std::string& user_name() const { return _username; }
    void user_name(const std::string& name) { _username = name; }
    int default_frequency() const { return _default_frequency; }
    void default_frequency(int frequency) { _default_frequency = frequency; }
    /// Seconds since the epoch.
    std::int64_t create_time() const { return _create_time; }
    void create_time(std::int64_t seconds) { _create_time = seconds; }

    // Entry i of each array belongs to frequency i; all five have the same length.
    const std::vector<int>& frequency_array() const { return _frequencies; }
    const std::vector<double>& predict_power_array() const { return _predict_power; }
    const std::vector<double>& energy_saving_pct_array() const { return _energy_saving_pct; }
    const std::vector<int>& predict_elapse_time_array() const { return _predict_elapse_time; }
    const std::vector<double>& perf_degrad_pct_array() const { return _perf_degrad_pct; }

    /// Row `i` of the arrays.
    [[nodiscard]] eas::TagRow row(std::size_t i) const {
        return {_frequencies[i], _predict_power[i], _energy_saving_pct[i], _predict_elapse_time[i],
                _perf_degrad_pct[i]};
    }
    [[nodiscard]] eas::RowRange<EnergyTag> rows() const { return {*this, _frequencies.size()}; }
    /// The first row of exactly this frequency.
    [[nodiscard]] std::optional<eas::TagRow> row_of(int frequency) const;

    /// Appends one row; `energy` is its predicted power. When memory is short this throws and
    /// leaves the tag as it was.
    void set_array_data(int frequency, double energy, double saving_pct, int time,
                        double perfd_pct);

    /// 1 when the tag has at least one row, else 0.
    int available() const { return _frequencies.empty() ? 0 : 1; }
    void clear() noexcept;

    /// The highest frequency of the rows, 0 without one.
    int get_nominal_freq() const;
    /// Which row is the measured one: the first that neither saves nor loses anything; the number
    /// of rows when there is none.
    int get_default_energy_index() const;

    /// Predicts every frequency of the set from a run of `elapse_time` seconds at
    /// `power_consumed` watts at the default frequency; `gbs`, `gips` and `cpi` as in JobMetrics.h.
    /// Null names count as empty. The tag is not available after a failure, and empty.
    void genEnergyTag(const CoEfficients* myCoEff, const char* clustername, const char* user,
                      const char* jid, const char* tagname, double power_consumed, int elapse_time,
                      double gbs, double gips, double cpi);

    // The single predictions, for row `fidx` of the set.

    /// W; -1.0 when there is no such row or the job's figures allow no prediction.
    double predictPower(const CoEfficients* myCoEff, int fidx, double power_consumed, double gbs,
                        double gips) const;
    /// s, cut to whole ones; negative where predictPower has no value, or without a pace.
    int predictTime(const CoEfficients* myCoEff, int fidx, int elapse_time, double gbs, double gips,
                    double cpi) const;
    /// 0, or -1 with `perfdpct` untouched when a time is below one second.
    int perfDegrade(int est_time, int elapse_time, double& perfdpct) const;
    /// 0, or -1 with `engsavpct` untouched unless both energies are above 1e-7 J.
    int energySaving(double est_energy, double energy_consumed, double& engsavpct) const;

    /// The report for people: frequencies in kHz when `unitk` is not 0, else in GHz. Empty for a
    /// tag without the measured row.
    std::string format_etag(int unitk) const;
    /// Dumps the tag on standard output.
    void display_etag() const;

  private:
    struct Job;
    int predict_all(const CoEfficients& coeffs, const Job& job);
    int predict_row(const CoEfficients& coeffs, int fidx, const Job& job);

    std::string _cluster_name;
    std::string _energy_tag_name;
    std::string _job_step_id;
    std::string _username;
    int _default_frequency = 0;
    std::int64_t _create_time = 0;
    std::vector<int> _frequencies;
    std::vector<double> _predict_power;
    std::vector<double> _energy_saving_pct;
    std::vector<int> _predict_elapse_time;
    std::vector<double> _perf_degrad_pct;
};
