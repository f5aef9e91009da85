#include "tools/easctl/model/ModelOptions.h"

#include <cstdlib>
#include <set>

#include "tools/easctl/cli/Command.h"

namespace easctl {
namespace {

/// The only member of `found`; throws when there is none or a choice.
std::string only_one(const std::set<std::string>& found, const std::string& what,
                     const std::string& option, const std::string& none) {
    if (found.size() == 1)
        return *found.begin();
    std::string names;
    for (const std::string& name : found)
        names += (names.empty() ? "" : ", ") + name;
    if (found.empty()) {
        throw Failure(ExitCode::database, none,
                      "easctl model list shows what is stored, easctl model import stores a model");
    }
    throw Failure(ExitCode::usage, "which " + what + "? The database has " + names,
                  "give " + option);
}

}  // namespace

void ModelOptions::add_to(CLI::App& command) {
    add_option(command, "--dsn", database.dsn,
               "ODBC data source (default: the locator file's, else easdb)")
        .check(some_text())
        .type_name("NAME");
    add_names_to(command);
}

std::array<Option, 2> ModelOptions::add_names_to(CLI::App& command) {
    return {
        add_option(command, "--cluster", cluster, "cluster (default: the only one with a model)")
            .check(some_text())
            .type_name("NAME"),
        add_option(command, "--default-frequency", default_khz,
                   "at which jobs are measured (default: the only one of the cluster)")
            .check(positive_number())
            .type_name("KHZ")};
}

void ModelOptions::resolve(Database& from) {
    const auto rows =
        from.run("select distinct cluster_name, default_frequency from TQVN_EnergyCoEfficients");
    from.rollback();
    const std::string where = "data source \"" + from.dsn() + "\": ";
    std::set<std::string> clusters;
    for (const Database::Row& row : rows)
        clusters.insert(row.at(0).value_or(""));
    if (cluster.empty())
        cluster = only_one(clusters, "cluster", "--cluster", where + "it holds no coefficients");
    if (default_khz != 0)
        return;
    std::set<std::string> frequencies;
    for (const Database::Row& row : rows) {
        if (row.at(0) == cluster)
            frequencies.insert(row.at(1).value_or(""));
    }
    const std::string frequency =
        only_one(frequencies, "default frequency of \"" + cluster + "\"", "--default-frequency",
                 where + "it holds no coefficients of cluster \"" + cluster + '"');
    default_khz = std::atoi(frequency.c_str());
}

void add_thresholds_option(CLI::App& command, std::string& file) {
    add_option(command, "--thresholds", file, "performance thresholds of the site")
        .environment(thresholds_variable)
        .type_name("FILE");
}

}  // namespace easctl
