#include "tools/easctl/model/ModelStore.h"

#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "base/Numbers.h"
#include "common/records/TQVN_EnergyCoEfficients.h"
#include "interface/TagRequest.h"
#include "interface/TagStore.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/database/Schema.h"

namespace easctl {
namespace {

constexpr std::size_t longest_cluster = 40;

int int_of(const Database::Value& value) {
    return eas::to_int(value.value_or("0").c_str());
}

/// In ascending order of frequency.
std::vector<eas::ModelRow> sorted_rows(const CoEfficients& model) {
    std::vector<eas::ModelRow> rows;
    for (const eas::ModelRow& row : model.rows())
        rows.push_back(row);
    std::stable_sort(rows.begin(), rows.end(), [](const eas::ModelRow& a, const eas::ModelRow& b) {
        return a.frequency < b.frequency;
    });
    return rows;
}

std::string choice(const std::vector<StoredModel>& models) {
    std::string text;
    for (const StoredModel& model : models)
        text += (text.empty() ? "" : ", ") + std::to_string(model.default_khz);
    return text;
}

}  // namespace

std::string exact_column(Database& database, const std::string& column) {
    return database.engine() == Engine::sqlite ? "printf('%!.17g', " + column + ")" : column;
}

std::vector<StoredModel> stored_models(Database& database,
                                       const std::optional<std::string>& cluster) {
    const std::string condition = cluster ? " where c.cluster_name = ?" : "";
    const auto rows = database.run(
        "select c.cluster_name, c.default_frequency, count(*), min(c.frequency), max(c.frequency), "
        "(select count(*) from TQVN_EnergyPolicyTag t where t.cluster_name = c.cluster_name and "
        "t.default_frequency = c.default_frequency) from TQVN_EnergyCoEfficients c" +
            condition +
            " group by c.cluster_name, c.default_frequency "
            "order by c.cluster_name, c.default_frequency",
        cluster ? std::vector<std::string>{*cluster} : std::vector<std::string>());
    std::vector<StoredModel> models;
    for (const auto& row : rows)
        models.push_back({row[0].value_or(""), int_of(row[1]), int_of(row[2]), int_of(row[3]),
                          int_of(row[4]), std::strtol(row[5].value_or("0").c_str(), nullptr, 10)});
    return models;
}

StoredModel pick_model(Database& database, const std::string& cluster, int default_khz) {
    const std::vector<StoredModel> models = stored_models(database, cluster);
    const std::string where =
        "data source \"" + database.dsn() + "\": cluster \"" + cluster + "\" has ";
    if (models.empty())
        throw Failure(ExitCode::database, where + "no coefficients",
                      "easctl model list shows what there is; easctl model import stores them");
    if (default_khz == 0 && models.size() == 1)
        return models[0];
    if (default_khz == 0)
        throw Failure(ExitCode::usage,
                      where + "several default frequencies: " + choice(models) + " kHz",
                      "choose one with --default-frequency");
    for (const StoredModel& model : models) {
        if (model.default_khz == default_khz)
            return model;
    }
    throw Failure(ExitCode::database, where + "no coefficients for the default frequency " +
                                          std::to_string(default_khz) + " kHz, but for " +
                                          choice(models));
}

CoEfficients load_model(Database& database, const std::string& cluster, int default_khz) {
    std::string columns = "frequency";
    for (const char letter : std::string_view("abcdef"))
        columns += ", " + exact_column(database, std::string("factor_") + letter);
    CoEfficients model;
    model.setClusterName(cluster);
    for (const auto& row :
         database.run("select " + columns +
                          " from TQVN_EnergyCoEfficients where cluster_name = ? and "
                          "default_frequency = " +
                          std::to_string(default_khz) + " order by frequency",
                      {cluster})) {
        eas::ModelRow read{int_of(row[0]), {}};
        for (std::size_t i = 0; i < read.factors.size(); ++i)
            read.factors[i] = eas::to_double(row[i + 1].value_or("nan").c_str());
        model.add_row(read);
    }
    return model;
}

CoEfficients sorted(const CoEfficients& model) {
    CoEfficients result;
    result.setClusterName(model.getClusterName());
    for (const eas::ModelRow& row : sorted_rows(model))
        result.add_row(row);
    return result;
}

bool same_rows(const CoEfficients& one, const CoEfficients& other) {
    const std::vector<eas::ModelRow> left = sorted_rows(one);
    const std::vector<eas::ModelRow> right = sorted_rows(other);
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const eas::ModelRow& a, const eas::ModelRow& b) {
                          return a.frequency == b.frequency && a.factors == b.factors;
                      });
}

void store_model(Database& database, const std::string& cluster, const CoEfficients& model) {
    const int default_khz = model.getDefaultFrequency();
    remove_model(database, cluster, default_khz);
    TQVN_EnergyCoEfficients row;
    row.selectAll();
    cluster.copy(row._cluster_name, longest_cluster);
    row._cluster_name[std::min(cluster.size(), longest_cluster)] = '\0';
    row._default_frequency = default_khz;
    for (const auto& [frequency, factors] : model.rows()) {
        row._frequency = frequency;
        std::tie(row._factor_a, row._factor_b, row._factor_c, row._factor_d, row._factor_e,
                 row._factor_f) = std::tuple_cat(factors);
        database.insert(row);
    }
    CoEfficients as_read;
    const bool found =
        read_coeffs_from_db(&database.connection(), cluster, default_khz, as_read) == 0 &&
        as_read.getDefaultFrequency() == default_khz;
    if (found && same_rows(load_model(database, cluster, default_khz), model))
        return;
    const Failure failure = database.failure("the rows do not come back as they were stored");
    database.rollback();
    throw Failure(failure);
}

void remove_model(Database& database, const std::string& cluster, int default_khz) {
    database.run(
        "delete from TQVN_EnergyCoEfficients where cluster_name = ? and "
        "default_frequency = " +
            std::to_string(default_khz),
        {cluster});
}

bool is_column(std::string name, std::string_view table) {
    std::transform(name.begin(), name.end(), name.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    const Schema schema = parse_schema(sqlite_schema);
    return std::any_of(schema.tables.begin(), schema.tables.end(), [&](const SchemaTable& one) {
        return (table.empty() || one.name == table) && one.find(name) != nullptr;
    });
}

void require_cluster_name(const std::string& cluster) {
    const auto refuse = [&](const std::string& why) {
        throw Failure(ExitCode::usage, "--cluster \"" + cluster + "\": " + why,
                      "the name is that which the scheduler gives to the library");
    };
    if (cluster.empty())
        refuse("a cluster has a name");
    if (cluster.size() > longest_cluster)
        refuse("longer than 40 bytes");
    if (!eas::is_safe_in_condition(cluster) || printable(cluster) != cluster)
        refuse(
            "a double quote, a backslash at the end or a control character would change the "
            "meaning of the library's statements");
    if (is_column(cluster))
        refuse("a column is called so; SQLite would read the name as the column");
}

}  // namespace easctl
