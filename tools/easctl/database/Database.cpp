#include "tools/easctl/database/Database.h"

#include <fcntl.h>
#include <sqlext.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/UniqueFd.h"
#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/DB_Ptr.h"
#include "interface/LibraryState.h"
#include "interface/Locator.h"
#include "interface/TagStore.h"
#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Signals.h"
#include "tools/easctl/database/DatabaseFile.h"
#include "tools/easctl/database/OdbcConfiguration.h"

namespace easctl {
namespace {

constexpr const char* password_variable = "EASCTL_DB_PASSWORD";

/// Turns the echo of a terminal off for the length of a block.
class SilentTerminal {
  public:
    explicit SilentTerminal(int fd) : fd_(fd) {
        silent_ = ::tcgetattr(fd_, &before_) == 0;
        termios now = before_;
        now.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent_ = silent_ && ::tcsetattr(fd_, TCSAFLUSH, &now) == 0;
    }
    ~SilentTerminal() {
        if (silent_)
            ::tcsetattr(fd_, TCSAFLUSH, &before_);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    [[nodiscard]] bool silent() const { return silent_; }

  private:
    int fd_;
    bool silent_ = false;
    termios before_{};
};

/// Asks once. `again` says that a signal came first; it acts at the end of this, when the echo is
/// back: where it does not end the process, or stopped it for a while, the question is to be put
/// once more.
std::optional<std::string> ask_once(int terminal, const std::string& question, bool& again) {
    HeldSignals signals;
    signals.hold(SIGTSTP);
    const SilentTerminal silent(terminal);
    again = false;
    if (!silent.silent())
        return std::nullopt;
    ::dprintf(terminal, "%s", question.c_str());
    again = !signals.wait_for_input(terminal);
    std::array<char, 512> line{};
    const ssize_t length = again ? 0 : ::read(terminal, line.data(), line.size() - 1);
    ::dprintf(terminal, "\n");
    if (length <= 0)
        return std::nullopt;
    return std::string(line.data(), std::strcspn(line.data(), "\n"));
}

std::optional<std::string> find_password(const std::string& user, const std::string& dsn) {
    if (user.empty())
        return std::nullopt;  // the data source's own account has a password of its own
    if (const char* given = std::getenv(password_variable))
        return given;
    const eas::UniqueFd terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC));
    const std::string question = "Password of " + user + " for " + dsn + ": ";
    std::optional<std::string> password;
    for (bool again = terminal.is_open(); again;)
        password = ask_once(terminal.get(), question, again);
    return password;
}

Engine engine_of(const std::string& dbms) {
    const auto is = [&](std::string_view name) { return dbms.find(name) != std::string::npos; };
    if (is("SQLite"))
        return Engine::sqlite;
    return is("MariaDB") || is("MySQL") ? Engine::mariadb : Engine::other;
}

}  // namespace

void load_driver_manager() {
    if (DBLibrary::get()->ready() || DBLibrary::init(odbc_lib))
        return;
    throw Failure(ExitCode::database,
                  std::string("the ODBC driver manager \"") + odbc_lib + "\" cannot be loaded",
                  "install it: apt install unixodbc-dev (the package that has that file name)");
}

void DatabaseOptions::add_to(CLI::App& command) {
    add_option(command, "--dsn", dsn, "ODBC data source (default: the locator file's, else easdb)")
        .check(some_text())
        .type_name("NAME");
    add_option(command, "--user", user,
               "account (default: the data source's own); its password comes from\n"
               "EASCTL_DB_PASSWORD or is asked for")
        .check(some_text())
        .type_name("NAME");
}

std::string DatabaseOptions::dsn_name() const {
    if (!dsn.empty())
        return dsn;
    const std::string located = get_dsn();
    return located.empty() ? defdsn : located;
}

Database::Database(const DatabaseOptions& options) : dsn_(options.dsn_name()) {
    load_driver_manager();
    connect(options);
    transaction_.emplace(&connection_);
    engine_ = engine_of(info(SQL_DBMS_NAME));
    if (!keeps_nothing())
        return;
    end();
    throw Failure(ExitCode::database,
                  "data source \"" + dsn_ + "\" names no file: what is stored would be gone again",
                  "write Database = /path/of/the/file into [" + dsn_ + "] of odbc.ini");
}

Database::~Database() {
    if (transaction_)
        end();
}

bool Database::keeps_nothing() {
    if (engine_ != Engine::sqlite)
        return false;
    const std::vector<Row> files = run("pragma database_list");  // number, name, file
    return files.empty() || files[0].at(2).value_or("").empty();
}

void Database::end() {
    transaction_->rollback();
    transaction_.reset();
    connection_.disconnect();
}

void Database::connect(const DatabaseOptions& options) {
    const auto trouble = trouble_with_file(dsn_);
    if (trouble && !(trouble->can_be_made && options.makes_file))
        throw Failure(ExitCode::database, "data source \"" + dsn_ + "\": " + trouble->found,
                      trouble->remedy);
    if (const auto half = OdbcConfiguration().half_read(dsn_))
        throw Failure(ExitCode::database, "data source \"" + dsn_ + "\": " + half->found,
                      half->remedy);
    // A tool reports a database that does not answer; only a daemon may want to end there.
    ::setenv("ABORT_ON_DB_FAILED", "NO", 1);
    const std::optional<std::string> password = find_password(options.user, dsn_);
    const int status =
        connection_.connect(dsn_.c_str(), options.user.empty() ? nullptr : options.user.c_str(),
                            password ? password->c_str() : nullptr, nullptr, nullptr, nullptr);
    if (status != SQL_SUCCESS)
        throw failure("cannot connect");
}

std::string Database::info(SQLUSMALLINT what) {
    std::array<char, 256> text{};
    SQLSMALLINT length = 0;
    const SQLRETURN rc = DBLibrary::get()->SQLGetInfo(connection_.getConnHandle(), what,
                                                      text.data(), text.size() - 1, &length);
    return SQL_SUCCEEDED(rc) ? text.data() : std::string();
}

std::optional<unsigned> Database::info_number(SQLUSMALLINT what) {
    SQLUSMALLINT value = 0;
    SQLSMALLINT length = 0;
    const SQLRETURN rc = DBLibrary::get()->SQLGetInfo(connection_.getConnHandle(), what, &value,
                                                      sizeof value, &length);
    return SQL_SUCCEEDED(rc) ? std::optional<unsigned>(value) : std::nullopt;
}

Failure Database::failure(const std::string& what) {
    const std::string said = diagnostics_.take();
    std::string message = "data source \"" + dsn_ + "\": " + what;
    if (!said.empty())
        message += ": " + said;
    return {ExitCode::database, message, advice_on(said, dsn_)};
}

void Database::require(SQLRETURN rc, SQLSMALLINT type, SQLHANDLE handle, const std::string& what) {
    if (rc == SQL_SUCCESS || rc == SQL_NO_DATA)
        return;
    if (eas::check(type, handle, rc) != 0)
        throw failure(what);
}

std::vector<Database::Row> Database::run(const std::string& sql,
                                         const std::vector<std::string>& values) {
    return run_on(connection_.getConnHandle(), sql, values);
}

std::vector<std::string> Database::ask_at_once(std::size_t count, const std::string& sql) {
    std::vector<DB_Ptr> open;
    std::vector<std::string> answers;
    while (open.size() < count) {
        open.emplace_back(create_db_connection());
        if (open.back() == nullptr)
            break;
        try {
            const auto rows = run_on(open.back()->getConnHandle(), sql, {});
            if (!rows.empty())
                answers.push_back(rows[0].at(0).value_or(""));
        } catch (const Failure&) {
            continue;  // a server that went away, or refuses
        }
    }
    return answers;
}

std::vector<Database::Row> Database::run_on(SQLHANDLE connection, const std::string& sql,
                                            const std::vector<std::string>& values) {
    eas::Statement statement;
    const std::string what = "\"" + sql.substr(0, sql.find('\n')) + "\" failed";
    require(statement.allocate(connection), SQL_HANDLE_DBC, connection, what);
    SQLUSMALLINT place = 0;
    for (const std::string& value : values)
        require(statement.bind_text(++place, value), SQL_HANDLE_STMT, statement.get(), what);
    require(statement.execute(sql), SQL_HANDLE_STMT, statement.get(), what);
    std::vector<Row> rows;
    const SQLRETURN rc = statement.fetch_rows(rows);
    if (rc != SQL_SUCCESS && rc != SQL_NO_DATA)
        throw failure(what);
    return rows;
}

void Database::insert(DBObj& record) {
    if (transaction_->insert(&record, false) != SQL_SUCCESS)
        throw failure("a row could not be stored");
}

void Database::commit() {
    if (!SQL_SUCCEEDED(transaction_->commit())) {
        HandleDiagnosticsPrint(SQL_HANDLE_DBC, connection_.getConnHandle(), true);
        throw failure("the transaction could not be committed");
    }
}

void Database::rollback() {
    transaction_->rollback();
}

}  // namespace easctl
