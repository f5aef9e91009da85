// Reader of a cluster's coefficients from a text file, a stand-in for the database.
//
// One row per line: "2400000:0.98,12.5,40.1,1.02,0.6,0.03", the frequency in KHz, then A to F. A
// line that begins with "#" is skipped, in others the text from "#" on; there are no blank lines.
// Numbers are read as by atoi and atof, in the "C" locale. Used by one thread at a time.
#pragma once

#include <array>
#include <cstdio>
#include <vector>

#include "common/CoEfficients.h"

enum energy_error_bits {
    BAD_COEFFICIENTS_FILE = 1,
    BAD_COEFFICIENTS_FILE_FORMAT = 2,
    BAD_COEFFICIENTS_FORMAT = 4,
    DUPLICATED_FREQUENCY = 8
};
using EnergyErrorType_t = int;

class CoEffsFromFile {
  public:
    /// Appends the rows of the file; those before an error stay. Returns 0,
    /// BAD_COEFFICIENTS_FILE (not readable, or a line without ":") or BAD_COEFFICIENTS_FORMAT (a
    /// line without exactly six values), also kept in energy_err_reason.
    int ReadCoefficientsFromFile(const char* path);
    /// The same for an open stream.
    int ReadCoefficients(std::FILE* stream);

    /// Appends the rows to `target`; its cluster name stays. Returns how many, -1 for null.
    int VecToCoEfficients(CoEfficients* target) const;

    /// Lists the rows on standard output.
    void print_file_coefficients() const;

    std::vector<int>& getFrequencies() { return frequencies; }
    std::vector<double>& getFactorA() { return factor_a; }
    std::vector<double>& getFactorB() { return factor_b; }
    std::vector<double>& getFactorC() { return factor_c; }
    std::vector<double>& getFactorD() { return factor_d; }
    std::vector<double>& getFactorE() { return factor_e; }
    std::vector<double>& getFactorF() { return factor_f; }

    /// Why the last reading failed, 0 when none has.
    EnergyErrorType_t energy_err_reason = 0;

  private:
    int read_row(char* line);
    void append_row(int frequency, const std::array<double, 6>& factors);

    std::vector<int> frequencies;
    std::vector<double> factor_a;
    std::vector<double> factor_b;
    std::vector<double> factor_c;
    std::vector<double> factor_d;
    std::vector<double> factor_e;
    std::vector<double> factor_f;

  public:
    /// A set that the caller associates with the reader, which does not own or use it.
    CoEfficients* coeff_from_file = nullptr;
};
