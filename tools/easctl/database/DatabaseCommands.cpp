// easctl db: makes the tables of the energy database, or says what differs from them.
#include <algorithm>
#include <memory>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/database/Schema.h"
#include "tools/easctl/database/ServerKind.h"

namespace easctl {
namespace {

Json description_of(Database& database) {
    Json document = {{"dsn", database.dsn()},
                     {"engine", database.info(SQL_DBMS_NAME)},
                     {"version", database.info(SQL_DBMS_VER)},
                     {"driver", database.info(SQL_DRIVER_NAME)}};
    if (database.engine() == Engine::mariadb)
        document["server"] = server_kind(database).text();
    return document;
}

std::string headline(Database& database) {
    std::string line = "data source " + database.dsn() + ": " + database.info(SQL_DBMS_NAME) + ' ' +
                       database.info(SQL_DBMS_VER) + " through " + database.info(SQL_DRIVER_NAME);
    if (database.engine() == Engine::mariadb)
        line += ": " + server_kind(database).text();
    return line + '\n';
}

/// Ends either command: what differs, as text or as part of `document`.
void conclude(Database& database, const Findings& findings, Json document, Globals& globals) {
    if (findings.has_errors())
        globals.outcome = ExitCode::found;
    if (globals.json) {
        document["ok"] = !findings.has_errors();
        document["findings"] = findings.json();
        print_json(document);
        return;
    }
    print(findings.text(globals.colored()));
    if (!findings.has_errors())
        print(headline(database) + paint("ok", Style::good, globals.colored()) +
              ": the tables are as the library needs them\n");
}

void init(const DatabaseOptions& options, Globals& globals) {
    DatabaseOptions making = options;
    making.makes_file = true;
    Database database(making);
    const Schema schema = schema_for(database);
    const std::vector<std::string> existing = existing_objects(database, schema);
    Json created = Json::array();
    for (const SchemaStatement& statement : schema.statements) {
        if (std::find(existing.begin(), existing.end(), statement.object) != existing.end())
            continue;
        database.run(statement.text);
        created.push_back(statement.object);
        if (!globals.json)
            print("created " + statement.object + '\n');
    }
    database.commit();
    Json document = description_of(database);
    document["created"] = created;
    conclude(database, check_schema(database), document, globals);
}

void check(const DatabaseOptions& options, bool grants, Globals& globals) {
    Database database(options);
    Findings findings = check_schema(database);
    if (grants)
        check_grants(database, findings);
    conclude(database, findings, description_of(database), globals);
}

}  // namespace

void add_db_commands(CLI::App& app, Globals& globals) {
    CLI::App& group = add_group(app, "db", "the energy database: make its tables, check them");
    const auto options = std::make_shared<DatabaseOptions>();

    CLI::App& init_command =
        add_command(group, "init",
                    "Makes the tables that are missing, in the dialect of the data source's\n"
                    "database; what is there is checked and left alone.",
                    "easctl db init\n"
                    "easctl db init --dsn easdb-test\n"
                    "EASCTL_DB_PASSWORD=$(cat secret) easctl db init --user root");
    options->add_to(init_command);
    set_action(init_command, [options, &globals] { init(*options, globals); });

    CLI::App& check_command = add_command(
        group, "check",
        "Says what differs from the tables that the library needs, and what of the\n"
        "session and the server (quoting, sql_mode, isolation, a cluster's state, more\n"
        "than one writer) would go wrong or lose tags. Changes nothing.",
        "easctl db check\n"
        "easctl db check --grants --json");
    options->add_to(check_command);
    const auto grants = std::make_shared<bool>(false);
    add_flag(check_command, "--grants", *grants, "also try what the account may do");
    set_action(check_command, [options, grants, &globals] { check(*options, *grants, globals); });
}

}  // namespace easctl
