// The model of one cluster: for every processor frequency the six coefficients of the predictions.
//
// Frequencies are in kHz, in the order in which the rows were added (ascending, as loaded from the
// database). The row whose coefficients are all near zero marks the default frequency, at which
// jobs are measured. A set is filled by one thread and only read afterwards.
#pragma once

#include <string>
#include <vector>

#include "common/model/ModelRow.h"
#include "common/model/ParallelArrays.h"

class CoEfficients {
  public:
    CoEfficients() = default;
    CoEfficients(const CoEfficients&) = default;
    CoEfficients(CoEfficients&&) noexcept = default;
    ~CoEfficients() = default;

    /// When memory is short this throws and leaves the set as it was.
    CoEfficients& operator=(CoEfficients& other);
    CoEfficients& operator=(CoEfficients&&) noexcept = default;

    std::string getClusterName() const { return cluster_name; }
    void setClusterName(const std::string& name) { cluster_name = name; }

    /// Appends one row; when memory is short this throws and leaves the set as it was.
    void setArrayData(int freq, double a, double b, double c, double d, double e, double f);
    /// The same.
    void add_row(const eas::ModelRow& row);

    /// Row `i`, below total_frequencies().
    [[nodiscard]] eas::ModelRow row(std::size_t i) const {
        return {frequencies[i],
                {factor_a[i], factor_b[i], factor_c[i], factor_d[i], factor_e[i], factor_f[i]}};
    }
    [[nodiscard]] eas::RowRange<CoEfficients> rows() const { return {*this, frequencies.size()}; }

    int total_frequencies() const { return static_cast<int>(frequencies.size()); }
    const std::vector<int>& frequencyArray() const { return frequencies; }
    const std::vector<double>& CoEfficientA_Array() const { return factor_a; }
    const std::vector<double>& CoEfficientB_Array() const { return factor_b; }
    const std::vector<double>& CoEfficientC_Array() const { return factor_c; }
    const std::vector<double>& CoEfficientD_Array() const { return factor_d; }
    const std::vector<double>& CoEfficientE_Array() const { return factor_e; }
    const std::vector<double>& CoEfficientF_Array() const { return factor_f; }

    /// The frequency of the last row that marks one; 0 without one.
    int getDefaultFrequency() const;
    /// The frequency of the last row, 0 for an empty set.
    int getNominalFrequency() const;
    /// The first row of exactly this frequency, or -1.
    int getCoeffFreqIndex(int freq) const;

    /// Lists the rows on standard output.
    void displayCoEfficients() const;

  private:
    std::string cluster_name;
    std::vector<int> frequencies;
    std::vector<double> factor_a;
    std::vector<double> factor_b;
    std::vector<double> factor_c;
    std::vector<double> factor_d;
    std::vector<double> factor_e;
    std::vector<double> factor_f;
};
