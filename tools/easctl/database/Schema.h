// The tables as the library needs them: read off the scripts in sql/, which are embedded, so that
// what is created and what is checked have one source.
#pragma once

#include <string>
#include <vector>

#include "tools/easctl/cli/Findings.h"
#include "tools/easctl/database/Database.h"

namespace easctl {

extern const char* const sqlite_schema;
extern const char* const mariadb_schema;

struct SchemaColumn {
    std::string name;
    std::string type;  ///< upper case
    bool not_null = false;
};

struct SchemaKey {
    std::string name;  ///< empty: the primary key
    std::vector<std::string> columns;
};

struct SchemaTable {
    std::string name;
    std::string statement;  ///< which makes it
    std::vector<SchemaColumn> columns;
    std::vector<SchemaKey> keys;
    [[nodiscard]] const SchemaColumn* find(const std::string& column) const;
};

/// A statement of the script and the object that it makes.
struct SchemaStatement {
    std::string object;
    std::string text;
};

struct Schema {
    std::vector<SchemaStatement> statements;
    std::vector<SchemaTable> tables;
};

/// Throws Failure for an engine that has no script.
Schema schema_for(Database& database);
/// The same, read from a script.
Schema parse_schema(const std::string& script);
/// Every statement of a script, without comments: they end in ";" at a line's end.
std::vector<std::string> statements_of(const std::string& script);

/// The tables and indexes of the script that the database has, by name.
std::vector<std::string> existing_objects(Database& database, const Schema& schema);

/// What differs from the script, and what of the session would make the library's statements mean
/// something else. Nothing is changed.
Findings check_schema(Database& database);
/// The finding about a table that a server hides from the account.
constexpr const char* unreadable_table = "this account may not read the table";
/// Whether the account may run what the library (errors) and this tool (warnings) send; nothing is
/// changed.
Findings check_rights(Database& database);
/// The same, and what the account may do that neither needs.
void check_grants(Database& database, Findings& findings);

}  // namespace easctl
