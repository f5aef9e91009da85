// The links from the locator file to the coefficients and thresholds.
#include <dlfcn.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "db/base_class/DBLibrary.h"
#include "interface/LibraryState.h"
#include "interface/Locator.h"
#include "interface/TagStore.h"
#include "tools/easctl/Doctor.h"
#include "tools/easctl/ModelStore.h"
#include "tools/easctl/OdbcConfiguration.h"
#include "tools/easctl/Schema.h"
#include "tools/easctl/ThresholdFile.h"

namespace easctl {
namespace {

Link locator() {
    const std::string name = std::string("locator file ") + cfgloc;
    if (::access(cfgloc, F_OK) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return {name, LinkStatus::ok, std::string("none; the data source is ") + defdsn, "",
                    ""};
        return {name, LinkStatus::denied, std::strerror(errno),
                std::string("the library falls back to the data source ") + defdsn,
                "chmod a+rx on its folder, as root"};
    }
    if (::access(cfgloc, R_OK) != 0)
        return {name, LinkStatus::denied, std::strerror(errno),
                std::string("the library falls back to the data source ") + defdsn,
                std::string("chmod a+r ") + cfgloc};
    const std::string dsn = get_dsn();
    if (dsn.empty())
        return {name, LinkStatus::wrong, "its first line does not name a data source",
                std::string("the library falls back to the data source ") + defdsn,
                std::string("echo 'mysql:dbname=") + defdsn + "' >" + cfgloc};
    return {name, LinkStatus::ok, "names the data source " + dsn, "", ""};
}

Link driver_manager() {
    const std::string name = std::string("driver manager ") + odbc_lib;
    if (DBLibrary::get()->ready() || DBLibrary::init(odbc_lib))
        return {name, LinkStatus::ok, "loaded", "", ""};
    const bool other_name = ::dlopen("libodbc.so.2", RTLD_NOW | RTLD_LOCAL) != nullptr;
    return {name, LinkStatus::missing,
            other_name ? "only libodbc.so.2, a name that the library does not ask for"
                       : "not installed",
            "no function of the library can reach a database", "apt install unixodbc-dev"};
}

bool is_yes(const std::string& text) {
    return ::strcasecmp(text.c_str(), "yes") == 0 || ::strcasecmp(text.c_str(), "on") == 0 ||
           text == "1";
}

Link pooling(const OdbcConfiguration& odbc) {
    const std::string value = odbc.value("ODBC", "Pooling", "odbcinst.ini");
    if (!is_yes(value))
        return {"ODBC pooling", LinkStatus::ok, "off", "", ""};
    return {"ODBC pooling", LinkStatus::warning, "[ODBC] Pooling = " + value,
            "closed connections are kept and handed out again: faster with a MariaDB server; with "
            "SQLite each initialisation of the library leaves a descriptor open",
            "nothing with MariaDB (see the guide to pooling); else Pooling = No in odbcinst.ini"};
}

bool others_may_read(const std::string& path, const std::string& dsn) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || (status.st_mode & S_IROTH) == 0)
        return false;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.find('[' + dsn + ']') != std::string::npos)
            return true;
    }
    return false;
}

Link data_source(const OdbcConfiguration& odbc, const std::string& dsn) {
    const std::string name = "data source " + dsn;
    if (odbc.value(dsn, "", "odbc.ini").empty())
        return {name, LinkStatus::missing,
                "no section [" + dsn + "] in " + joined(OdbcConfiguration::data_source_files()),
                "the library cannot connect",
                "add the section to /etc/odbc.ini, from the samples of examples/odbc"};
    const bool password = !odbc.value(dsn, "PWD", "odbc.ini").empty() ||
                          !odbc.value(dsn, "PASSWORD", "odbc.ini").empty();
    for (const std::string& path : OdbcConfiguration::data_source_files()) {
        if (password && others_may_read(path, dsn))
            return {name, LinkStatus::warning, path + " holds a password and everybody can read it",
                    "any user can change the tags of any other", "chmod o-r " + path};
    }
    return {name, LinkStatus::ok, "driver " + odbc.value(dsn, "Driver", "odbc.ini"), "", ""};
}

Link driver(const OdbcConfiguration& odbc, const std::string& dsn) {
    const std::string named = odbc.value(dsn, "Driver", "odbc.ini");
    std::string path = odbc.value(named, "Driver", "odbcinst.ini");
    if (path.empty())
        path = named;
    const std::string name = "driver " + named;
    const std::string remedy = "apt install libsqliteodbc or odbc-mariadb; odbcinst -q -d lists";
    if (named.empty())
        return {name, LinkStatus::missing, "the data source has no Driver",
                "the library cannot "
                "connect",
                "add Driver = to [" + dsn + "] in odbc.ini"};
    std::string why;
    if (!odbc.can_open(path, why))
        return {name, LinkStatus::missing, why, "the library cannot connect", remedy};
    return {name, LinkStatus::ok, path, "", ""};
}

Link skipped(const std::string& name, const std::string& why) {
    return {name, LinkStatus::skipped, why, "", ""};
}

Link schema(Database& database) {
    const Findings findings = check_schema(database);
    for (const Finding& one : findings.all()) {
        if (one.severity == Severity::error)
            return {"schema", LinkStatus::wrong, one.place + ": " + one.text, one.hint,
                    "easctl db check --dsn " + database.dsn()};
    }
    if (!findings.empty())
        return {"schema", LinkStatus::warning,
                findings.all()[0].place + ": " + findings.all()[0].text, findings.all()[0].hint,
                "easctl db check --dsn " + database.dsn()};
    return {"schema", LinkStatus::ok, "both tables, their keys, and the session", "", ""};
}

Link coefficients(const DoctorOptions& options, Database& database, CoEfficients& model) {
    const std::string import = "easctl model import FILE --cluster ";
    if (options.cluster.empty()) {
        std::vector<std::string> names;
        for (const StoredModel& one : stored_models(database))
            names.push_back(one.cluster);
        if (names.empty())
            return {"coefficients", LinkStatus::missing, "of no cluster",
                    "nothing can be predicted or selected", import + "NAME"};
        return {"coefficients", LinkStatus::ok, "of " + joined(names), "", ""};
    }
    const std::string name = "coefficients of " + options.cluster;
    try {
        const StoredModel stored = pick_model(database, options.cluster, options.default_khz);
        CoEfficients as_library;
        if (read_coeffs_from_db(&database.connection(), stored.cluster, stored.default_khz,
                                as_library) != 0)
            return {name, LinkStatus::wrong, "the library cannot read them", "",
                    "easctl db check --dsn " + database.dsn()};
        model = as_library;
        if (model.getDefaultFrequency() != stored.default_khz)
            return {name, LinkStatus::wrong,
                    "the row of zeros is that of " + std::to_string(model.getDefaultFrequency()) +
                        " KHz, not of " + std::to_string(stored.default_khz),
                    "predictions are wrong", import + options.cluster + " --replace"};
        return {
            name, LinkStatus::ok,
            std::to_string(stored.frequencies) + " frequencies, default " + ghz(stored.default_khz),
            "", ""};
    } catch (const Failure& failure) {
        return {name, LinkStatus::missing, failure.message, "nothing can be predicted or selected",
                import + options.cluster};
    }
}

Link thresholds(const DoctorOptions& options, CoEfficients& model) {
    const std::string name = "thresholds " + options.thresholds;
    const std::string remedy =
        "easctl thresholds check " + options.thresholds + " --cluster " + options.cluster;
    if (model.total_frequencies() == 0)
        return skipped(name, "needs the coefficients of a cluster (--cluster)");
    try {
        const ThresholdFile file = read_threshold_file(options.thresholds, model);
        if (!file.thresholds.isValid())
            return {name, LinkStatus::wrong, file.findings.errors_as_message(),
                    "the library refuses to initialise", remedy};
        if (file.findings.has_errors())
            return {name, LinkStatus::warning, "accepted, but lines are dropped",
                    "other values hold than the file seems to say", remedy};
        return {name, LinkStatus::ok, "accepted", "", ""};
    } catch (const Failure& failure) {
        return {name, status_of(errno), failure.message, "the library refuses to initialise",
                "give the file that the scheduler uses"};
    }
}

void examine_contents(const DoctorOptions& options, Database& database, CoEfficients& model,
                      std::vector<Link>& links) {
    try {
        links.push_back(schema(database));
        if (links.back().status == LinkStatus::wrong)
            links.push_back(skipped("coefficients", "needs the schema"));
        else
            links.push_back(coefficients(options, database, model));
    } catch (const Failure& failure) {
        links.push_back({"schema", LinkStatus::wrong, failure.message, failure.hint,
                         "easctl db check --dsn " + database.dsn()});
    }
    if (!options.thresholds.empty())
        links.push_back(thresholds(options, model));
}

}  // namespace

std::vector<Link> examine_database(const DoctorOptions& options, CoEfficients& model) {
    std::vector<Link> links{locator(), driver_manager()};
    const bool loaded = links.back().status == LinkStatus::ok;
    const std::string dsn = options.database.dsn_name();
    const OdbcConfiguration odbc;
    if (odbc.available()) {
        links.push_back(pooling(odbc));
        links.push_back(data_source(odbc, dsn));
        if (links.back().status != LinkStatus::missing)
            links.push_back(driver(odbc, dsn));
    }
    if (!loaded) {
        links.push_back(skipped("connection", "needs the driver manager"));
        return links;
    }
    try {
        Database database(options.database);
        links.push_back({"connection", LinkStatus::ok,
                         database.info(SQL_DBMS_NAME) + ' ' + database.info(SQL_DBMS_VER), "", ""});
        examine_contents(options, database, model, links);
    } catch (const Failure& failure) {
        const bool denied = failure.message.find("28000") != std::string::npos ||
                            failure.message.find("ccess denied") != std::string::npos;
        links.push_back({"connection", denied ? LinkStatus::denied : LinkStatus::missing,
                         failure.message, "every call of the library fails", failure.hint});
    }
    return links;
}

}  // namespace easctl
