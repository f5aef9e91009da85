// The coefficients in the database, exact to the last bit on every engine.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/model/CoEfficients.h"
#include "tools/easctl/database/Database.h"

namespace easctl {

struct StoredModel {
    std::string cluster;
    int default_khz = 0;
    int frequencies = 0;
    int lowest_khz = 0;
    int highest_khz = 0;
    long tag_rows = 0;  ///< rows of tags that were predicted for this cluster and frequency
};

/// The models of one cluster, or of all, by name and default frequency.
std::vector<StoredModel> stored_models(Database& database,
                                       const std::optional<std::string>& cluster = {});

/// The one model of a cluster; `default_khz` of 0 is enough where it has only one. Throws Failure
/// when there is none, or several to choose from.
StoredModel pick_model(Database& database, const std::string& cluster, int default_khz);

/// A column of doubles as a query asks for it, so that every digit comes: SQLite's driver cuts
/// numbers to 15 digits; a text that the engine makes has all of them.
std::string exact_column(Database& database, const std::string& column);

/// The coefficients, in ascending order of frequency.
CoEfficients load_model(Database& database, const std::string& cluster, int default_khz);

/// Puts the rows into the open transaction, after removing those of the same cluster and default
/// frequency. Throws Failure, with nothing stored, also when they do not come back as they were.
void store_model(Database& database, const std::string& cluster, const CoEfficients& model);

/// Removes the rows in the open transaction.
void remove_model(Database& database, const std::string& cluster, int default_khz);

/// Whether both hold the same rows, to the bit, whatever their order.
bool same_rows(const CoEfficients& one, const CoEfficients& other);
/// A copy in ascending order of frequency.
CoEfficients sorted(const CoEfficients& model);

/// Whether SQLite, which takes a quoted name for a column where there is one, has it in `table`, or
/// in any.
bool is_column(std::string name, std::string_view table = {});

/// Throws Failure for a name under which the library could not find the cluster.
void require_cluster_name(const std::string& cluster);

}  // namespace easctl
