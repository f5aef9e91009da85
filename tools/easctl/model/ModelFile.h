// A coefficient file, read by the library's own reader and checked for what that accepts silently.
#pragma once

#include <string>
#include <vector>

#include "common/model/CoEfficients.h"
#include "tools/easctl/cli/Findings.h"

namespace easctl {

struct ModelFile {
    CoEfficients coefficients;  ///< in the file's order; the cluster is not named
    std::vector<int> lines;     ///< where row i stands
    Findings findings;
};

/// Throws Failure when the file cannot be read or the library's reader refuses it; everything else
/// that is wrong is in the findings.
ModelFile read_model_file(const std::string& path);

/// A row as a line of such a file; it reads back to the same bits.
std::string file_line(const eas::ModelRow& row);

/// Checks the rows of any model: frequencies, the row of the default frequency, and what typical
/// jobs are predicted to do. `places[i]` names row i in the findings, `whole` the model.
void check_model(const CoEfficients& model, const std::vector<std::string>& places,
                 const std::string& whole, Findings& findings);

/// The same of a model in the database, where a row is named by cluster and frequency.
Findings check_stored_model(const CoEfficients& model, const std::string& cluster);

/// A job whose predictions an administrator can judge.
struct TypicalJob {
    const char* name;
    double power;                  ///< W
    double cpi;                    ///< cycles per instruction
    double bytes_per_instruction;  ///< memory traffic
};
/// A compute-bound, a mixed and a memory-bound one.
const std::vector<TypicalJob>& typical_jobs();

/// What becomes of a job at a frequency, against what was measured at the default one.
struct Change {
    double time;   ///< factor
    double power;  ///< factor
};
/// The prediction of a row, by the library's own formulas.
Change predict(const eas::ModelRow& row, int default_khz, const TypicalJob& job);

}  // namespace easctl
