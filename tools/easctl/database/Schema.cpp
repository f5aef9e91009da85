#include "tools/easctl/database/Schema.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace easctl {
namespace {

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

bool begins(const std::string& text, std::string_view word) {
    return text.compare(0, word.size(), word) == 0;
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \n\t");
    return first == std::string::npos
               ? std::string()
               : text.substr(first, text.find_last_not_of(" \n\t") - first + 1);
}

/// The parts between the outermost parentheses of a text, split at the commas among them.
std::vector<std::string> list_in_parentheses(const std::string& text) {
    std::vector<std::string> parts;
    std::string part;
    int depth = 0;
    for (const char c : text) {
        depth -= c == ')' ? 1 : 0;
        if (depth > 0 && !(depth == 1 && c == ','))
            part += c;
        if (depth == 1 && c == ',')
            parts.push_back(trimmed(std::exchange(part, {})));
        if (depth == 0 && c == ')')
            break;
        depth += c == '(' ? 1 : 0;
    }
    parts.push_back(trimmed(part));
    return parts;
}

void add_item(SchemaTable& table, const std::string& item) {
    std::istringstream words(item);
    std::string first;
    std::string second;
    words >> first >> second;
    if (first == "PRIMARY")
        table.keys.push_back({"", list_in_parentheses(item)});
    else if (first == "KEY")
        table.keys.push_back({second, list_in_parentheses(item)});
    else
        table.columns.push_back(
            {first, upper(second), upper(item).find("NOT NULL") != std::string::npos});
}

std::string word(const std::string& text, int index) {
    std::istringstream words(text);
    std::string found;
    for (int i = 0; i <= index; ++i)
        words >> found;
    return found;
}

}  // namespace

const SchemaColumn* SchemaTable::find(const std::string& column) const {
    const auto found = std::find_if(columns.begin(), columns.end(),
                                    [&](const SchemaColumn& one) { return one.name == column; });
    return found != columns.end() ? &*found : nullptr;
}

std::vector<std::string> statements_of(const std::string& script) {
    std::istringstream lines(script);
    std::vector<std::string> statements;
    std::string statement;
    for (std::string line; std::getline(lines, line);) {
        line.erase(std::min(line.find("--"), line.size()));
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (line.empty())
            continue;
        statement += line + '\n';
        if (line.back() == ';') {
            statement.resize(statement.size() - 2);
            statements.push_back(std::exchange(statement, {}));
        }
    }
    return statements;
}

Schema parse_schema(const std::string& script) {
    Schema schema;
    for (const std::string& statement : statements_of(script)) {
        const std::string object = word(statement, 2);  // CREATE TABLE x, CREATE INDEX x
        schema.statements.push_back({object, statement});
        if (begins(statement, "CREATE TABLE")) {
            SchemaTable table{object, statement, {}, {}};
            for (const std::string& item : list_in_parentheses(statement))
                add_item(table, item);
            schema.tables.push_back(std::move(table));
        } else {
            const std::string on = word(statement, 4);
            for (SchemaTable& table : schema.tables) {
                if (table.name == on)
                    table.keys.push_back({object, list_in_parentheses(statement)});
            }
        }
    }
    return schema;
}

Schema schema_for(Database& database) {
    switch (database.engine()) {
        case Engine::sqlite:
            return parse_schema(sqlite_schema);
        case Engine::mariadb:
            return parse_schema(mariadb_schema);
        case Engine::other:
            break;
    }
    throw Failure(ExitCode::database,
                  "data source \"" + database.dsn() + "\" is a database of \"" +
                      database.info(SQL_DBMS_NAME) + "\", for which there is no schema",
                  "use SQLite on one machine, MariaDB or a Galera cluster of it for many");
}

std::vector<std::string> existing_objects(Database& database, const Schema& schema) {
    const bool sqlite = database.engine() == Engine::sqlite;
    const std::string sql =
        sqlite ? "select name from sqlite_schema where name = ?"
               : "select table_name from information_schema.tables where table_schema = database() "
                 "and table_name = ?";
    std::vector<std::string> existing;
    for (const SchemaStatement& statement : schema.statements) {
        const auto rows = database.run(sql, {statement.object});
        if (!rows.empty())
            existing.push_back(statement.object);
    }
    return existing;
}

}  // namespace easctl
