#include "tools/easctl/model/ModelChoice.h"

#include "interface/TagStore.h"
#include "tools/easctl/model/ModelFile.h"
#include "tools/easctl/model/ModelStore.h"

namespace easctl {
namespace {

CoEfficients model_of_file(const std::string& path) {
    const ModelFile file = read_model_file(path);
    if (file.findings.has_errors())
        throw Failure(ExitCode::input, file.findings.errors_as_message());
    return sorted(file.coefficients);
}

/// What the library would read.
CoEfficients stored_model(ModelOptions options) {
    if (!options.cluster.empty())
        require_cluster_name(options.cluster);
    Database database(options.database);
    options.resolve(database);
    pick_model(database, options.cluster, options.default_khz);
    CoEfficients coeffs;
    if (read_coeffs_from_db(&database.connection(), options.cluster, options.default_khz, coeffs) !=
        0)
        throw database.failure("the coefficients cannot be read");
    if (coeffs.getDefaultFrequency() == 0) {
        throw Failure(ExitCode::database,
                      "data source \"" + database.dsn() + "\": the model of cluster \"" +
                          options.cluster + "\" has no row of zeros for its default frequency",
                      "easctl model show prints it, easctl model import replaces it");
    }
    return coeffs;
}

}  // namespace

void ModelChoice::add_to(CLI::App& command) {
    const Option model =
        add_option(command, "--model", file, "coefficient file (default: the database)")
            .type_name("FILE");
    stored.database.add_to(command);
    for (const Option& of_database : stored.add_names_to(command))
        model.excludes(of_database);
    for (const char* name : {"--dsn", "--user"})
        model.excludes(option_of(command, name));
}

CoEfficients ModelChoice::load() const {
    return file.empty() ? stored_model(stored) : model_of_file(file);
}

}  // namespace easctl
