// The options that name one model of the database, and the thresholds that go with it.
#pragma once

#include <array>
#include <string>

#include "tools/easctl/cli/Options.h"
#include "tools/easctl/database/Database.h"

namespace easctl {

/// Which model of the database, and where that is.
struct ModelOptions {
    DatabaseOptions database;
    std::string cluster;
    int default_khz = 0;

    void add_to(CLI::App& command);
    /// The same without the database; returns the options.
    std::array<Option, 2> add_names_to(CLI::App& command);
    /// Completes what was not given, where the database leaves no choice.
    void resolve(Database& from);
};

/// Names the file of performance thresholds where no option does.
inline constexpr const char* thresholds_variable = "EASCTL_THRESHOLDS";
/// --thresholds, else the variable.
void add_thresholds_option(CLI::App& command, std::string& file);

}  // namespace easctl
