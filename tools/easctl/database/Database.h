// A session of easctl with the energy database, through the library's own database layer. Every
// failure is thrown with the DSN's name, what the driver said, and what to do about it.
#pragma once

#include <sql.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "db/base_class/DBConnection.h"
#include "db/base_class/DBObj.h"
#include "db/base_class/Statement.h"
#include "db/base_class/TxObject.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Options.h"
#include "tools/easctl/database/Diagnostics.h"

namespace easctl {

/// The options --dsn and --user. The password of --user is taken from the environment variable
/// "EASCTL_DB_PASSWORD"; without the variable it is asked for on the terminal, and without a
/// terminal left to the DSN.
struct DatabaseOptions {
    std::string dsn;
    std::string user;
    bool makes_file = false;  ///< the file of a SQLite data source need not be there

    void add_to(CLI::App& command);
    /// --dsn, else what the locator file says, else the library's default.
    [[nodiscard]] std::string dsn_name() const;
};

enum class Engine { sqlite, mariadb, other };

class Database {
  public:
    using Row = eas::Statement::Row;
    using Value = Row::value_type;  ///< empty: null

    /// Connects, with autocommit off. The data source becomes the process's for the library, too.
    explicit Database(const DatabaseOptions& options);
    /// Rolls back what was not committed.
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    [[nodiscard]] const std::string& dsn() const { return dsn_; }
    [[nodiscard]] Engine engine() const { return engine_; }
    /// A text of SQLGetInfo, such as SQL_DBMS_NAME; empty when the driver does not tell.
    [[nodiscard]] std::string info(SQLUSMALLINT what);
    /// A 16-bit number of SQLGetInfo, such as SQL_TXN_CAPABLE.
    [[nodiscard]] std::optional<unsigned> info_number(SQLUSMALLINT what);
    [[nodiscard]] DBConnection& connection() { return connection_; }
    [[nodiscard]] TxObject& transaction() { return *transaction_; }

    /// Executes a statement; "?" stands for the texts of `values`, in order. Returns its rows, if
    /// it has any.
    std::vector<Row> run(const std::string& sql, const std::vector<std::string>& values = {});
    /// What up to `count` further connections, open at the same time, answer to a query of one
    /// value; those that fail are left out.
    std::vector<std::string> ask_at_once(std::size_t count, const std::string& sql);
    void insert(DBObj& record);
    void commit();
    void rollback();

    /// The failure of `what`, with what the driver has said since the last one.
    [[nodiscard]] Failure failure(const std::string& what);

  private:
    void connect(const DatabaseOptions& options);
    /// Whether the tables would be in SQLite's memory, or in a file that it removes at the end.
    bool keeps_nothing();
    void end();
    std::vector<Row> run_on(SQLHANDLE connection, const std::string& sql,
                            const std::vector<std::string>& values);
    void require(SQLRETURN rc, SQLSMALLINT type, SQLHANDLE handle, const std::string& what);

    std::string dsn_;
    Diagnostics diagnostics_;
    DBConnection connection_{nullptr, false, 0};
    std::optional<TxObject> transaction_;
    Engine engine_ = Engine::other;
};

/// Loads the driver manager; throws Failure when it is missing.
void load_driver_manager();

}  // namespace easctl
