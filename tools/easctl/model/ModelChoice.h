// The coefficients that a command works with: those of a file, or of the database.
#pragma once

#include <string>

#include "common/model/CoEfficients.h"
#include "tools/easctl/model/ModelOptions.h"

namespace easctl {

struct ModelChoice {
    std::string file;
    ModelOptions stored;  ///< counts when no file is given

    void add_to(CLI::App& command);
    /// In ascending order of frequency. Throws Failure when there are none, or they are wrong.
    [[nodiscard]] CoEfficients load() const;
};

}  // namespace easctl
