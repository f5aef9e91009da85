// The model of one cluster: for every processor frequency the six coefficients of the predictions.
//
// Frequencies are in KHz, in the order in which the rows were added (ascending, as loaded from the
// database). The row whose coefficients are all near zero marks the default frequency, at which
// jobs are measured. A set is filled by one thread and only read afterwards.
#pragma once

#include <string>
#include <vector>

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

    int total_frequencies() const { return static_cast<int>(frequencies.size()); }
    const std::vector<int>& frequencyArray() const { return frequencies; }
    const std::vector<double>& CoEfficientA_Array() const { return factor_a; }
    const std::vector<double>& CoEfficientB_Array() const { return factor_b; }
    const std::vector<double>& CoEfficientC_Array() const { return factor_c; }
    const std::vector<double>& CoEfficientD_Array() const { return factor_d; }
    const std::vector<double>& CoEfficientE_Array() const { return factor_e; }
    const std::vector<double>& CoEfficientF_Array() const { return factor_f; }

    /// The frequency of the last row whose six coefficients are all below 1e-6; 0 without one.
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
