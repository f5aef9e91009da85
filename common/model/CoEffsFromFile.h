// Reader of a cluster's coefficients from a text file, a stand-in for the database.
//
// One row per line: "2400000:0.98,12.5,40.1,1.02,0.6,0.03", the frequency in kHz, then A to F. A
// line that begins with "#" is skipped, in others the text from "#" on; there are no blank lines.
// Numbers are read as by atoi and atof, in the "C" locale. Used by one thread at a time.
#pragma once

#include <cstdio>
#include <vector>

#include "common/model/CoEfficients.h"

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

    const std::vector<int>& getFrequencies() const { return rows.frequencyArray(); }
    const std::vector<double>& getFactorA() const { return rows.CoEfficientA_Array(); }
    const std::vector<double>& getFactorB() const { return rows.CoEfficientB_Array(); }
    const std::vector<double>& getFactorC() const { return rows.CoEfficientC_Array(); }
    const std::vector<double>& getFactorD() const { return rows.CoEfficientD_Array(); }
    const std::vector<double>& getFactorE() const { return rows.CoEfficientE_Array(); }
    const std::vector<double>& getFactorF() const { return rows.CoEfficientF_Array(); }

    /// Why the last reading failed, 0 when none has.
    EnergyErrorType_t energy_err_reason = 0;
    /// A set that the caller associates with the reader, which does not own or use it.
    CoEfficients* coeff_from_file = nullptr;

  private:
    int read_row(char* line);

    CoEfficients rows;  // without a cluster name
};
