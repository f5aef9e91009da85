#include "tools/easctl/doctor/DatabaseLinks.h"

#include <dlfcn.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <utility>

#include "db/base_class/DBLibrary.h"
#include "interface/LibraryState.h"
#include "interface/Locator.h"
#include "interface/TagStore.h"
#include "tools/easctl/database/DatabaseFile.h"
#include "tools/easctl/database/OdbcConfiguration.h"
#include "tools/easctl/database/Schema.h"
#include "tools/easctl/database/ServerKind.h"
#include "tools/easctl/doctor/TagLinks.h"
#include "tools/easctl/model/ModelFile.h"
#include "tools/easctl/model/ModelStore.h"
#include "tools/easctl/model/ThresholdFile.h"

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

Link skipped(const std::string& name, const std::string& why) {
    return {name, LinkStatus::skipped, why, "", ""};
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
    return ::stat(path.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0 &&
           !OdbcConfiguration::sections(path, dsn).empty();
}

/// A data source that stands twice in the file in which the driver manager finds it.
std::optional<Link> ambiguous(const std::string& link, const std::vector<std::string>& files,
                              const std::string& dsn, const std::string& driver) {
    for (const std::string& path : files) {
        const std::vector<int> lines = OdbcConfiguration::sections(path, dsn);
        if (lines.empty())
            continue;
        if (lines.size() == 1)
            return std::nullopt;
        std::vector<std::string> others;
        for (std::size_t i = 1; i < lines.size(); ++i)
            others.push_back(path + ':' + std::to_string(lines[i]));
        return Link{link, LinkStatus::warning,
                    "[" + dsn + "] of " + path + ':' + std::to_string(lines[0]) +
                        " counts, driver " + driver + "; there is another at " + joined(others),
                    "what the later section says is not read", "remove the one that is not meant"};
    }
    return std::nullopt;
}

/// What the driver manager would find in a file that this user may not read.
Link denied(const std::string& name, const std::string& file) {
    return {name, LinkStatus::denied, file + ": this user may not read it",
            "the library cannot connect", OdbcConfiguration::remedy_of_denied(file)};
}

Link data_source(const OdbcConfiguration& odbc, const std::string& dsn) {
    const std::string name = "data source " + dsn;
    if (!odbc.available())
        return skipped(name, "needs libodbcinst.so.2, which comes with the driver manager");
    if (const auto half = odbc.half_read(dsn))
        return {name, LinkStatus::wrong, half->found,
                "the library connects to another database than the file says, or to none",
                half->remedy};
    const bool found = !odbc.value(dsn, "", "odbc.ini").empty();
    const auto files = OdbcConfiguration::data_source_files();
    if (const auto file = OdbcConfiguration::denied_of(files); !found && !file.empty())
        return denied(name, file);
    if (!found)
        return {name, LinkStatus::missing, "no section [" + dsn + "] in " + joined(files),
                "the library cannot connect",
                "add the section to /etc/odbc.ini, from the samples of examples/odbc"};
    const std::string named = odbc.value(dsn, "Driver", "odbc.ini");
    if (const auto twice = ambiguous(name, files, dsn, named))
        return *twice;
    const bool password = !odbc.value(dsn, "PWD", "odbc.ini").empty() ||
                          !odbc.value(dsn, "PASSWORD", "odbc.ini").empty();
    for (const std::string& path : files) {
        if (password && others_may_read(path, dsn))
            return {name, LinkStatus::warning, path + " holds a password and everybody can read it",
                    "any user can change the tags of any other", "chmod o-r " + path};
    }
    return {name, LinkStatus::ok, "driver " + named, "", ""};
}

Link driver(const OdbcConfiguration& odbc, const std::string& dsn) {
    const std::string named = odbc.value(dsn, "Driver", "odbc.ini");
    const std::string registered = odbc.value(named, "Driver", "odbcinst.ini");
    const std::string path = registered.empty() ? named : registered;
    const std::string name = "driver " + named;
    const std::string remedy = "apt install libsqliteodbc or odbc-mariadb; odbcinst -q -d lists";
    if (named.empty())
        return {name, LinkStatus::missing, "the data source has no Driver",
                "the library cannot "
                "connect",
                "add Driver = to [" + dsn + "] in odbc.ini"};
    std::string why;
    if (!odbc.can_open(path, why)) {
        const auto files = OdbcConfiguration::driver_files();
        if (const auto file = OdbcConfiguration::denied_of(files);
            registered.empty() && !file.empty())
            return denied(name, file);
        if (registered.empty() && named.find('/') == std::string::npos)
            why = "no driver of that name is registered, in " + joined(files);
        return {name, LinkStatus::missing, why, "the library cannot connect", remedy};
    }
    return {name, LinkStatus::ok, path, "", ""};
}

const Finding* first_error(const Findings& findings) {
    for (const Finding& one : findings.all()) {
        if (one.severity == Severity::error)
            return &one;
    }
    return nullptr;
}

Link schema(Database& database) {
    const Findings findings = check_schema(database);
    if (findings.empty())
        return {"schema", LinkStatus::ok, "both tables, their keys, and the session", "", ""};
    const Finding* error = first_error(findings);
    const Finding& one = error != nullptr ? *error : findings.all()[0];
    std::string found = one.place + ": " + one.text;
    if (findings.all().size() > 1)
        found += " (and more: easctl db check --dsn " + database.dsn() + ")";
    if (error == nullptr)
        return {"schema", LinkStatus::warning, found, "it works, for now", one.hint};
    const bool hidden = one.text == unreadable_table;
    return {"schema", hidden ? LinkStatus::denied : LinkStatus::wrong, found,
            "tags cannot be stored or read as they must", one.hint};
}

constexpr const char* account_link = "rights of the account";

bool may_remove_tags(const Findings& findings) {
    return std::none_of(findings.all().begin(), findings.all().end(), [](const Finding& one) {
        return one.place == "TQVN_EnergyPolicyTag" && one.text.find("DELETE") != std::string::npos;
    });
}

Link rights(Database& database) {
    const std::string name = account_link;
    const Findings findings = check_rights(database);
    const Finding* error = first_error(findings);
    if (error == nullptr && may_remove_tags(findings))
        return {name, LinkStatus::ok, "reads coefficients; reads, adds and removes tags", "", ""};
    if (error == nullptr)
        return {name, LinkStatus::ok, "reads coefficients; reads and adds tags, as a node's", "",
                ""};
    const std::string found = error->place + ": " + error->text;
    if (error->text.find("locked") != std::string::npos)
        return {name, LinkStatus::warning, found, "tags cannot be stored at this moment",
                error->hint};
    return {name, LinkStatus::denied, found, "tags cannot be selected by or stored", error->hint};
}

/// The link where no cluster is named and there is a choice, or none; `cluster` becomes the only
/// one, as it does for the commands that work with tags.
std::optional<Link> any_cluster(const DoctorOptions& options, Database& database,
                                std::string& cluster) {
    std::vector<std::string> names;
    for (const StoredModel& one : stored_models(database)) {
        if (names.empty() || names.back() != one.cluster)
            names.push_back(one.cluster);
    }
    if (names.empty())
        return Link{"coefficients", LinkStatus::missing, "of no cluster",
                    "nothing can be predicted or selected",
                    "easctl model import FILE --cluster NAME"};
    if (names.size() > 1)
        return Link{"coefficients", LinkStatus::ok, "of " + joined(names), "", ""};
    cluster = names[0];
    const bool choice = options.default_khz == 0 && stored_models(database, cluster).size() > 1;
    if (choice && options.thresholds.empty())
        return Link{"coefficients", LinkStatus::ok, "of " + cluster, "", ""};
    return std::nullopt;
}

/// Coefficients that the library can read.
Link judged(const std::string& name, const StoredModel& stored, const CoEfficients& model) {
    const std::string remedy = "easctl model show --cluster " + stored.cluster +
                               " says more; easctl model import FILE --cluster " + stored.cluster +
                               " --replace";
    if (model.getDefaultFrequency() != stored.default_khz)
        return {name, LinkStatus::wrong,
                "the row of zeros is that of " + std::to_string(model.getDefaultFrequency()) +
                    " kHz, not of " + std::to_string(stored.default_khz),
                "predictions are wrong", remedy};
    const Findings findings = check_stored_model(model, stored.cluster);
    if (const Finding* error = first_error(findings))
        return {name, LinkStatus::wrong, error->place + ": " + error->text,
                "predictions are wrong, or refused", remedy};
    return {name, LinkStatus::ok,
            std::to_string(stored.frequencies) + " frequencies, default " + ghz(stored.default_khz),
            "", ""};
}

Link coefficients(DoctorOptions& options, Database& database, CoEfficients& model) {
    if (options.cluster.empty()) {
        if (const auto link = any_cluster(options, database, options.cluster))
            return *link;
    }
    const std::string import = "easctl model import FILE --cluster ";
    const std::string name = "coefficients of " + options.cluster;
    try {
        const StoredModel stored = pick_model(database, options.cluster, options.default_khz);
        CoEfficients as_library;
        if (read_coeffs_from_db(&database.connection(), stored.cluster, stored.default_khz,
                                as_library) != 0)
            return {name, LinkStatus::wrong, "the library cannot read them", "",
                    "easctl db check --dsn " + database.dsn()};
        model = as_library;
        return judged(name, stored, model);
    } catch (const Failure& failure) {
        if (failure.code == ExitCode::usage)
            return {name, LinkStatus::skipped, failure.message, "", failure.hint};
        return {name, LinkStatus::missing, failure.message, "nothing can be predicted or selected",
                import + options.cluster};
    }
}

Link thresholds(const DoctorOptions& options, CoEfficients& model) {
    const std::string name = "thresholds " + options.thresholds;
    const std::string remedy =
        "easctl thresholds check " + options.thresholds + " --cluster " + options.cluster;
    if (model.total_frequencies() == 0)
        return {name, LinkStatus::skipped, "needs the coefficients of one cluster", "",
                "name it with --cluster, and with --default-frequency where it has several"};
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

/// A link that a statement breaks when it fails.
template <typename Examine>
Link examined(const std::string& name, Examine examine) {
    try {
        return examine();
    } catch (const Failure& failure) {
        return {name, LinkStatus::wrong, failure.message, "nothing can be stored or read",
                failure.hint};
    }
}

/// `database` is open afterwards, if the link holds.
Link connection(const DoctorOptions& options, std::optional<Database>& database) {
    const std::string name = "connection";
    if (const auto trouble = trouble_with_file(options.database.dsn_name()))
        return {name, trouble->denied ? LinkStatus::denied : LinkStatus::missing, trouble->found,
                "no call of the library can do its work", trouble->remedy};
    try {
        database.emplace(options.database);
        std::string found = database->info(SQL_DBMS_NAME) + ' ' + database->info(SQL_DBMS_VER);
        if (database->engine() == Engine::mariadb)
            found += ", " + server_kind(*database).text();
        return {name, LinkStatus::ok, found, "", ""};
    } catch (const Failure& failure) {
        const bool denied = failure.message.find("28000") != std::string::npos ||
                            failure.message.find("ccess denied") != std::string::npos;
        return {name, denied ? LinkStatus::denied : LinkStatus::missing, failure.message,
                "every call of the library fails", failure.hint};
    }
}

/// The links in the order in which each needs those before it.
class Chain {
  public:
    void add(LinkId id, Link link) { links_.push_back(identified(id, std::move(link))); }
    [[nodiscard]] bool last_holds() const { return holds(links_.back()); }
    /// Whether the library would get as far as connecting.
    [[nodiscard]] bool can_connect() const {
        return std::all_of(links_.begin(), links_.end(), [](const Link& link) {
            return link.id == LinkId::locator || !is_broken(link);
        });
    }
    std::vector<Link> take() { return std::move(links_); }

  private:
    std::vector<Link> links_;
};

void examine_contents(DoctorOptions options, std::optional<Database>& database, CoEfficients& model,
                      Chain& chain) {
    chain.add(LinkId::schema, database ? examined("schema", [&] { return schema(*database); })
                                       : skipped("schema", "needs the connection"));
    const std::string stored =
        options.cluster.empty() ? "coefficients" : "coefficients of " + options.cluster;
    if (chain.last_holds()) {
        chain.add(LinkId::rights, examined(account_link, [&] { return rights(*database); }));
        chain.add(LinkId::coefficients,
                  examined(stored, [&] { return coefficients(options, *database, model); }));
    } else {
        chain.add(LinkId::rights, skipped(account_link, "needs the schema"));
        chain.add(LinkId::coefficients, skipped(stored, "needs the schema"));
    }
    if (!options.thresholds.empty())
        chain.add(LinkId::thresholds, thresholds(options, model));
    if (database && model.total_frequencies() > 0)
        chain.add(LinkId::tags, examined("tags", [&] {
                      return tags_of_model(*database, options.cluster, model);
                  }));
}

}  // namespace

std::vector<Link> examine_database(const DoctorOptions& options, CoEfficients& model) {
    Chain chain;
    const std::string dsn = options.database.dsn_name();
    chain.add(LinkId::locator, locator());
    chain.add(LinkId::driver_manager, driver_manager());
    const OdbcConfiguration odbc;
    chain.add(LinkId::pooling, pooling(odbc));
    chain.add(LinkId::data_source, data_source(odbc, dsn));
    chain.add(LinkId::driver,
              chain.last_holds() ? driver(odbc, dsn) : skipped("driver", "needs the data source"));
    std::optional<Database> database;
    chain.add(LinkId::connection, chain.can_connect()
                                      ? connection(options, database)
                                      : skipped("connection", "needs the links above"));
    examine_contents(options, database, model, chain);
    return chain.take();
}

}  // namespace easctl
