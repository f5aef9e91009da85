// What of a database differs from the schema, and what its session would read differently.
#include <sqlext.h>

#include <algorithm>
#include <cctype>
#include <utility>

#include "tools/easctl/database/DatabaseFile.h"
#include "tools/easctl/database/Schema.h"
#include "tools/easctl/database/ServerKind.h"

namespace easctl {
namespace {

const char* const initstmt_hint =
    "in odbc.ini: INITSTMT = SET SESSION "
    "sql_mode='NO_BACKSLASH_ESCAPES,STRICT_ALL_TABLES,NO_ENGINE_SUBSTITUTION'";

const char* const other_driver_hint =
    "in odbc.ini: the Driver of libsqliteodbc or odbc-mariadb, without further options";

std::string text_of(const Database::Value& value) {
    return value.value_or("");
}

/// A type without what an engine adds to it: INT(11) is INT.
std::string plain_type(std::string type) {
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const std::size_t width = type.find('(');
    return type.compare(0, 3, "INT") == 0 || type.compare(0, 6, "BIGINT") == 0
               ? type.substr(0, width)
               : type;
}

/// A statement in one spelling: no case, no white space.
std::string spelled(const std::string& statement) {
    std::string text;
    for (const char c : statement) {
        if (std::isspace(static_cast<unsigned char>(c)) == 0 && c != '"' && c != '`')
            text += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

class TableCheck {
  public:
    TableCheck(Database& database, const SchemaTable& expected, Findings& findings)
        : database_(database), expected_(expected), findings_(findings) {}

    void run() {
        sqlite() ? read_sqlite() : read_mariadb();
        if (columns_.empty()) {
            report_no_columns();
            return;
        }
        check_columns();
        check_order();
        check_keys();
        sqlite() ? check_sqlite_statement() : check_mariadb_table();
    }

  private:
    [[nodiscard]] bool sqlite() const { return database_.engine() == Engine::sqlite; }

    void read_sqlite() {
        for (const auto& row :
             database_.run("select name, type, \"notnull\" from pragma_table_info(?) order by cid",
                           {expected_.name}))
            columns_.push_back({text_of(row[0]), plain_type(text_of(row[1])), row[2] == "1"});
        for (const auto& row :
             database_.run("select l.origin, l.name, i.name from pragma_index_list(?) l, "
                           "pragma_index_info(l.name) i order by l.seq, i.seqno",
                           {expected_.name}))
            add_key_column(row[0] == "pk" ? "" : text_of(row[1]), text_of(row[2]));
    }

    void read_mariadb() {
        for (const auto& row : database_.run(
                 "select column_name, column_type, is_nullable from information_schema.columns "
                 "where table_schema = database() and table_name = ? order by ordinal_position",
                 {expected_.name}))
            columns_.push_back({text_of(row[0]), plain_type(text_of(row[1])), row[2] == "NO"});
        for (const auto& row : database_.run(
                 "select index_name, column_name from information_schema.statistics where "
                 "table_schema = database() and table_name = ? order by index_name, seq_in_index",
                 {expected_.name}))
            add_key_column(row[0] == "PRIMARY" ? "" : text_of(row[0]), text_of(row[1]));
    }

    void add_key_column(const std::string& key, const std::string& column) {
        if (keys_.empty() || keys_.back().name != key)
            keys_.push_back({key, {}});
        keys_.back().columns.push_back(column);
    }

    /// A server does not show tables to an account that may do nothing with them.
    void report_no_columns() {
        try {
            database_.run("select count(*) from " + expected_.name + " where 1 = 0");
        } catch (const Failure& failure) {
            if (failure.message.find("denied") != std::string::npos) {
                findings_.error(expected_.name, unreadable_table, failure.hint);
                return;
            }
        }
        findings_.error(expected_.name, "the table is missing", init());
    }

    void check_columns() {
        for (const SchemaColumn& column : expected_.columns) {
            const std::string where = expected_.name + '.' + column.name;
            const auto found =
                std::find_if(columns_.begin(), columns_.end(),
                             [&](const SchemaColumn& one) { return one.name == column.name; });
            if (found == columns_.end()) {
                findings_.error(where, "the column is missing", remake());
                continue;
            }
            if (found->type != column.type)
                findings_.error(where,
                                "the type is " + found->type + " instead of " + column.type + ": " +
                                    consequence(found->type),
                                remake());
            if (column.not_null && !found->not_null)
                findings_.error(where, "nulls are allowed: a null is read as an old value",
                                remake());
        }
        for (const SchemaColumn& column : columns_) {
            if (expected_.find(column.name) == nullptr)
                findings_.error(expected_.name + '.' + column.name,
                                "the library does not know this column, and reads by position",
                                remake());
        }
    }

    static std::string consequence(const std::string& type) {
        const bool text =
            type.find("CHAR") != std::string::npos || type.find("TEXT") != std::string::npos;
        return text ? "names must be compared byte for byte, case and trailing blanks included"
                    : "values could be cut or rounded";
    }

    void check_order() {
        std::vector<std::string> wanted;
        std::vector<std::string> present;
        for (const SchemaColumn& column : expected_.columns)
            wanted.push_back(column.name);
        for (const SchemaColumn& column : columns_)
            present.push_back(column.name);
        if (wanted != present &&
            std::is_permutation(wanted.begin(), wanted.end(), present.begin(), present.end()))
            findings_.error(expected_.name,
                            "the columns stand in another order: " + joined(present) +
                                "; they are read by position, as " + joined(wanted),
                            remake());
    }

    void check_keys() {
        for (const SchemaKey& key : expected_.keys) {
            const std::string name = key.name.empty() ? "the primary key" : "the index " + key.name;
            const auto found = std::find_if(keys_.begin(), keys_.end(), [&](const SchemaKey& one) {
                return one.name == key.name;
            });
            const std::string wanted = "(" + joined(key.columns) + ")";
            if (found == keys_.end())
                report_key(key, name + " is missing, of " + wanted, false);
            else if (found->columns != key.columns)
                report_key(key, name + " is (" + joined(found->columns) + ") instead of " + wanted,
                           true);
        }
    }

    /// Without an index requests are slow; without the key the same tag could be stored twice.
    void report_key(const SchemaKey& key, const std::string& text, bool drop) {
        const std::string wanted = key.name + " (" + joined(key.columns) + ")";
        std::string remedy = "alter table " + expected_.name;
        remedy += (!drop ? "" : " drop key " + key.name + ",") + " add key " + wanted;
        if (sqlite())  // which makes an index apart from its table
            remedy = (!drop ? "" : "drop index " + key.name + ", then ") + init();
        if (key.name.empty())
            findings_.error(expected_.name, text + ": the same rows could be stored twice",
                            remake());
        else
            findings_.warning(expected_.name, text + ": requests are slow", remedy);
    }

    [[nodiscard]] std::string init() const { return "easctl db init --dsn " + database_.dsn(); }
    [[nodiscard]] std::string remake() const {
        return "rename the table, drop its indexes, make it anew with " + init() +
               ", and copy its rows";
    }

    void check_sqlite_statement() {
        const auto rows =
            database_.run("select sql from sqlite_schema where name = ?", {expected_.name});
        if (findings_.empty() && !rows.empty() &&
            spelled(text_of(rows[0][0])) != spelled(expected_.statement))
            findings_.warning(expected_.name,
                              "was made by another statement than that of this "
                              "version: a CHECK, COLLATE, STRICT or WITHOUT ROWID "
                              "differs",
                              "compare with sql/sqlite.sql");
    }

    void check_mariadb_table() {
        const auto rows = database_.run(
            "select engine from information_schema.tables where table_schema = database() and "
            "table_name = ?",
            {expected_.name});
        const std::string engine = rows.empty() ? "" : text_of(rows[0][0]);
        if (engine != "InnoDB")
            findings_.error(expected_.name,
                            "the storage engine is " + engine +
                                ": only InnoDB has the transactions that keep half a tag out",
                            "alter table " + expected_.name + " engine=InnoDB");
    }

    Database& database_;
    const SchemaTable& expected_;
    Findings& findings_;
    std::vector<SchemaColumn> columns_;
    std::vector<SchemaKey> keys_;
};

/// What a query of one value gives; empty for a null, no row and a refusal.
Database::Value value_of(Database& database, const std::string& sql) {
    try {
        const auto rows = database.run(sql);
        return rows.empty() || rows[0].empty() ? std::nullopt : rows[0][0];
    } catch (const Failure&) {
        return std::nullopt;
    }
}

/// Sends texts as the library does and looks at what the engine makes of them.
void check_session(Database& database, Findings& findings) {
    const std::string where = "session of " + database.dsn();
    const bool mariadb = database.engine() == Engine::mariadb;
    if (value_of(database, "select \"eas probe\"") != "eas probe")
        findings.error(where,
                       "a text in double quotes is not a text here (ANSI_QUOTES?), and the library "
                       "sends names in them",
                       mariadb ? initstmt_hint : other_driver_hint);
    if (value_of(database, "select \"a\\b\"") != "a\\b")
        findings.error(
            where,
            "a backslash in a text is not an ordinary character: a user SITE\\anna would "
            "not be found",
            mariadb ? initstmt_hint : other_driver_hint);
    if (database.connection().setAutoCommit(false) != SQL_SUCCESS)
        findings.error(where,
                       "autocommit cannot be switched off: half a tag could stay behind after a "
                       "failure",
                       other_driver_hint);
    else if (database.info_number(SQL_TXN_CAPABLE) == SQL_TC_NONE)
        findings.error(where,
                       "the driver says that it has no transactions: half a tag could stay behind "
                       "after a failure",
                       other_driver_hint);
}

void check_mariadb_session(Database& database, Findings& findings) {
    const std::string mode = value_of(database, "select @@session.sql_mode").value_or("");
    if (mode.find("STRICT_") == std::string::npos)
        findings.error("session of " + database.dsn(),
                       "the sql_mode is not strict: a text that is too long would be cut",
                       initstmt_hint);
}

void check_sqlite_file(Database& database, Findings& findings) {
    const std::string where = "session of " + database.dsn();
    if (value_of(database, "pragma synchronous") == "0")
        findings.warning(where, "SyncPragma is OFF: a power failure can destroy the database",
                         "in odbc.ini: SyncPragma = FULL");
}

struct Probe {
    const char* table;
    const char* right;
    const char* sql;                ///< matches no row, so that nothing changes
    const char* without = nullptr;  ///< who lacks it rightly; null: everybody needs it
};

constexpr const char* by_scheduler =
    "only eas_remove_tag and tag remove need this, a node does not";
constexpr const char* by_tool = "only model import and model remove need this";

constexpr Probe probes[] = {
    {"TQVN_EnergyCoEfficients", "SELECT",
     "select count(*) from TQVN_EnergyCoEfficients where 1 = 0"},
    {"TQVN_EnergyPolicyTag", "SELECT", "select count(*) from TQVN_EnergyPolicyTag where 1 = 0"},
    {"TQVN_EnergyPolicyTag", "INSERT",
     "insert into TQVN_EnergyPolicyTag select * from TQVN_EnergyPolicyTag where 1 = 0"},
    {"TQVN_EnergyPolicyTag", "DELETE", "delete from TQVN_EnergyPolicyTag where 1 = 0",
     by_scheduler},
    {"TQVN_EnergyCoEfficients", "INSERT",
     "insert into TQVN_EnergyCoEfficients select * from TQVN_EnergyCoEfficients where 1 = 0",
     by_tool},
    {"TQVN_EnergyCoEfficients", "DELETE", "delete from TQVN_EnergyCoEfficients where 1 = 0",
     by_tool},
};

/// Rights that neither the library nor this tool uses.
void check_surplus(Database& database, Findings& findings) {
    if (database.engine() != Engine::mariadb)
        return;
    for (const auto& row : database.run("show grants")) {
        const std::string grant = text_of(row[0]).substr(0, text_of(row[0]).find(" IDENTIFIED"));
        if (grant.find("ALL PRIVILEGES") != std::string::npos ||
            grant.find(" DROP") != std::string::npos || grant.find(" SUPER") != std::string::npos)
            findings.warning("account of " + database.dsn(), "may do more than it needs: " + grant,
                             "the accounts of least privilege are in mariadb-grants.sql");
    }
}

}  // namespace

Findings check_schema(Database& database) {
    Findings findings;
    const Schema schema = schema_for(database);
    if (database.engine() == Engine::mariadb && !check_server(database, findings))
        return findings;
    for (const SchemaTable& table : schema.tables)
        TableCheck(database, table, findings).run();
    check_session(database, findings);
    if (database.engine() == Engine::mariadb)
        check_mariadb_session(database, findings);
    else
        check_sqlite_file(database, findings);
    return findings;
}

Findings check_rights(Database& database) {
    Findings findings;
    if (const auto trouble = trouble_with_writing(database.dsn())) {
        findings.error("file of " + database.dsn(), trouble->found, trouble->remedy);
        return findings;
    }
    for (const Probe& probe : probes) {
        try {
            database.run(probe.sql);
        } catch (const Failure& failure) {
            const std::string text = std::string("may not ") + probe.right + ": " + failure.message;
            if (probe.without == nullptr)
                findings.error(probe.table, text,
                               failure.hint.empty() ? "every account needs this" : failure.hint);
            else
                findings.warning(probe.table, text, probe.without);
        }
    }
    database.rollback();
    return findings;
}

void check_grants(Database& database, Findings& findings) {
    const Findings rights = check_rights(database);
    for (const Finding& one : rights.all()) {
        if (one.severity == Severity::error)
            findings.error(one.place, one.text, one.hint);
        else
            findings.warning(one.place, one.text, one.hint);
    }
    check_surplus(database, findings);
}

}  // namespace easctl
