#include "db/base_class/DBConnection.h"

#include <strings.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "base/CancelState.h"
#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/DBTracer.h"
#include "db/base_class/OdbcHandle.h"
#include "db/base_class/Properties.h"

using eas::CancelState;
using eas::severity_debug;
using eas::severity_error;
using eas::trace;

namespace {

constexpr int max_attempts = 20;

SQLCHAR* odbc_text(std::string& text) {
    return reinterpret_cast<SQLCHAR*>(text.data());
}

/// Null for a setting that is not set.
SQLCHAR* odbc_text(std::string* setting) {
    return setting != nullptr ? odbc_text(*setting) : nullptr;
}

/// A text with its length, as SQLConnect takes user and password. One that is not set is an empty
/// text of length 0: on a null one the driver manager's connection pooling crashes (unixODBC
/// 2.3.11), and an empty one of length SQL_NTS replaces the data source's own (MariaDB's driver).
struct Credential {
    explicit Credential(std::string* set) : text(odbc_text(set)) {
        static SQLCHAR unset[] = "";
        if (set == nullptr) {
            text = unset;
            length = 0;
        }
    }
    SQLCHAR* text;
    SQLSMALLINT length = SQL_NTS;
};

const char* shown(const std::string* setting) {
    return setting != nullptr ? setting->c_str() : "(nil)";
}

SQLRETURN execute(SQLHANDLE hstmt, std::string& sql) {
    return DBLibrary::get()->SQLExecDirect(hstmt, odbc_text(sql), SQL_NTS);
}

bool abort_is_refused() {
    const char* choice = std::getenv("ABORT_ON_DB_FAILED");
    return choice != nullptr && ::strcasecmp(choice, "NO") == 0;
}

}  // namespace

DBConnection::Settings DBConnection::_settings;

/// While a connection is being made: unless kept, its handle is given back at the end of the block,
/// also when an exception or the cancellation of the thread leaves it.
class DBConnection::PendingConnection {
  public:
    explicit PendingConnection(DBConnection& con) noexcept : con_(con) {}
    PendingConnection(const PendingConnection&) = delete;
    PendingConnection& operator=(const PendingConnection&) = delete;
    ~PendingConnection() {
        if (kept_)
            return;
        const eas::DeferCancellation until_done;
        if (connected_)
            con_.disconnectHandle();
        con_.freeConnHandle();
        if (SQL_SUCCEEDED(con_._status))
            con_._status = -1;
    }

    void connected() noexcept { connected_ = true; }
    void keep() noexcept { kept_ = true; }

  private:
    DBConnection& con_;
    bool connected_ = false;
    bool kept_ = false;
};

DBConnection::DBConnection(const char* propertiesFile, bool isPooled, int traceLevel)
    : _henv(eas::no_handle()), _isPooled(isPooled), _trace_level(traceLevel) {
    if (propertiesFile == nullptr)
        return;
    Properties properties(propertiesFile);
    setDBinfo(properties["database_name"].c_str(), properties["database_user"].c_str(),
              properties["database_password"].c_str(), properties["database_schema_name"].c_str());
}

DBConnection::~DBConnection() {
    const eas::DeferCancellation until_done;
    freeEnvHandle();
}

SQLHANDLE DBConnection::createEnvHandle() {
    eas::OdbcHandle env(SQL_HANDLE_ENV);
    const SQLRETURN rc = env.allocate(SQL_NULL_HANDLE);
    if (!SQL_SUCCEEDED(rc)) {
        trace(severity_debug, "Error occured calling SQLAllocHandle.  rc=%d\n", rc);
        return eas::no_handle();
    }
    const auto version = reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3);
    const SQLRETURN set =
        DBLibrary::get()->SQLSetEnvAttr(env.get(), SQL_ATTR_ODBC_VERSION, version, 0);
    return SQL_SUCCEEDED(set) ? env.release() : eas::no_handle();
}

SQLHANDLE DBConnection::setEnvHandle() {
    freeEnvHandle();
    _freehandle = true;
    _henv = createEnvHandle();
    return _henv;
}

void DBConnection::setEnvHandle(SQLHANDLE henv) {
    if (henv == _henv)
        return;
    freeEnvHandle();
    _henv = henv;
}

void DBConnection::freeEnvHandle() {
    if (_freehandle && eas::is_handle(_henv))
        eas::free_handle(SQL_HANDLE_ENV, _henv);
    _freehandle = false;
    _henv = eas::no_handle();
}

void DBConnection::replace(std::string*& setting, const char* text) {
    std::unique_ptr<std::string> copy;
    if (text != nullptr)
        copy = std::make_unique<std::string>(text);
    const std::unique_ptr<std::string> old(std::exchange(setting, copy.release()));
}

void DBConnection::clearDBinfo() noexcept {
    for (std::string** setting :
         {&_settings._db, &_settings._user, &_settings._pwd, &_settings._schema})
        std::unique_ptr<std::string>(std::exchange(*setting, nullptr)).reset();
}

void DBConnection::setDBinfo(const char* db, const char* user, const char* pwd,
                             const char* schema) {
    if (user != nullptr)
        replace(_settings._user, user);
    if (db != nullptr)
        replace(_settings._db, db);
    if (pwd != nullptr)
        replace(_settings._pwd, pwd);
    if (schema != nullptr)
        replace(_settings._schema, schema);
}

void DBConnection::setDbName(const char* db) {
    replace(_settings._db, db);
}

void DBConnection::setDbUser(const char* user) {
    replace(_settings._user, user);
}

void DBConnection::setDbPassword(const char* pwd) {
    replace(_settings._pwd, pwd);
}

int DBConnection::setDbSchema(const char* schema) {
    replace(_settings._schema, schema);
    return _status == 0 ? setSchema() : 0;
}

int DBConnection::connect(const char* db, const char* user, const char* pwd, const char* schema,
                          seteuid_fcn set, unseteuid_fcn unset) {
    if (_status == 0)
        return 0;
    if (_henv == eas::no_handle())
        setEnvHandle();
    setDBinfo(db, user, pwd, schema);
    if (!eas::is_handle(_henv))
        return _status = -1;

    PendingConnection pending(*this);
    if (!allocate())
        return _status;
    eas::UserSwitch user_switch(set, unset, user, schema);
    if (!connectWithRetries()) {
        // The caller who switched the user is told by the result and switches back himself.
        user_switch.stay();
        return _status;
    }
    pending.connected();
    trace(severity_debug, "Connected to the database: %s\n", shown(_settings._db));
    user_switch.back();
    if (schemaDiffersFromUser())
        _status = setSchema();
    if (_status == SQL_SUCCESS_WITH_INFO)
        _status = 0;
    if (_status == 0)
        pending.keep();
    return _status;
}

bool DBConnection::schemaDiffersFromUser() noexcept {
    return _settings._schema != nullptr && _settings._user != nullptr &&
           *_settings._schema != *_settings._user;
}

bool DBConnection::allocate() {
    _hcon = SQL_NULL_HANDLE;
    _status = DBLibrary::get()->SQLAllocHandle(SQL_HANDLE_DBC, _henv, &_hcon);
    return eas::check(SQL_HANDLE_ENV, _henv, static_cast<SQLRETURN>(_status)) == 0;
}

bool DBConnection::connectWithRetries() {
    for (int attempt = 1;; ++attempt) {
        if (!connectOnce())
            return false;
        if (SQL_SUCCEEDED(_status))
            return true;
        if (!waitForNextAttempt(attempt))
            return false;
    }
}

/// Returns false after an answer that no further attempt would change.
bool DBConnection::connectOnce() {
    const Credential user(_settings._user);
    const Credential password(_settings._pwd);
    const SQLRETURN rc =
        DBLibrary::get()->SQLConnect(_hcon, odbc_text(_settings._db), SQL_NTS, user.text,
                                     user.length, password.text, password.length);
    _status = rc;
    if (rc == SQL_SUCCESS)
        return true;
    if (eas::check(SQL_HANDLE_DBC, _hcon, rc) != 0)
        return false;
    trace(severity_debug, "Error occured while connecting to the database (SQLConnect). rc=%d\n",
          _status);
    return true;
}

/// Returns false after the last attempt, if the process is not aborted then.
bool DBConnection::waitForNextAttempt(int attempt) {
    trace(severity_debug, "Error occured while connecting to the database (SQLConnect). rc=%d\n",
          _status);
    CancelState cancellable(PTHREAD_CANCEL_ENABLE);
    if (cancellable.error() != 0)
        trace(severity_debug, "Error enabling thread cancel\n");
    pthread_testcancel();
    if (attempt == max_attempts) {
        if (!abort_is_refused()) {
            trace(severity_error, "Unable to connect to the database, aborting...\n");
            std::abort();
        }
        trace(severity_debug, "Unable to connect to the database, returning CONN_NOT_CONNECTED\n");
        _status = -1;
        return false;
    }
    ::sleep(1);
    if (cancellable.restore() != 0)
        trace(severity_debug, "Error restoring thread cancel\n");
    trace(severity_debug, "Retrying database connections\n");
    return true;
}

int DBConnection::setSchema() {
    eas::OdbcHandle statement(SQL_HANDLE_STMT);
    const SQLRETURN allocated = statement.allocate(_hcon);
    if (eas::check(SQL_HANDLE_DBC, _hcon, allocated) != 0 || !statement.is_open())
        return allocated;

    std::string sql = std::string("set schema ") + shown(_settings._schema);
    execute(statement.get(), sql);  // not every database has it; the path decides
    trace(severity_debug, "Setting Schema: %s\n", sql.c_str());

    sql = std::string("set path = current path,  ") + shown(_settings._schema);
    const SQLRETURN rc = execute(statement.get(), sql);
    trace(severity_debug, "Setting Schema Path: %s\n", sql.c_str());
    if (rc != SQL_SUCCESS)
        eas::check_statement(rc, _hcon, statement.get());
    return rc;
}

bool DBConnection::isAutoCommit() {
    if (_autocommit == -1) {
        // Drivers write four bytes whatever length they are told; the other four must be zero.
        std::int64_t value = 0;
        const SQLRETURN rc = DBLibrary::get()->SQLGetConnectAttr(_hcon, SQL_ATTR_AUTOCOMMIT, &value,
                                                                 sizeof(value), nullptr);
        if (SQL_SUCCEEDED(rc))
            _autocommit = value;
    }
    return _autocommit == 1;
}

int DBConnection::setAutoCommit(bool on) {
    if (on && isAutoCommit())
        return 0;
    const auto value = reinterpret_cast<SQLPOINTER>(on ? SQL_AUTOCOMMIT_ON : SQL_AUTOCOMMIT_OFF);
    const SQLRETURN rc =
        DBLibrary::get()->SQLSetConnectAttr(_hcon, SQL_ATTR_AUTOCOMMIT, value, SQL_NTS);
    // What was asked for counts from now on, also when the driver refused it.
    _autocommit = on ? 1 : 0;
    return rc;
}

int DBConnection::commit() {
    const SQLRETURN rc = DBLibrary::get()->SQLEndTran(SQL_HANDLE_DBC, _hcon, SQL_COMMIT);
    // A failed commit is reported, not rolled back: that is the caller's to decide.
    if (rc == SQL_SUCCESS)
        trace(severity_debug, "Transaction committed\n");
    else
        trace(severity_debug, "Error while attempting to commit the transaction, rc=%d\n", rc);
    return rc;
}

int DBConnection::rollback() {
    trace(severity_debug, "Rolling back the transaction (DBConnection)\n");
    const SQLRETURN rc = DBLibrary::get()->SQLEndTran(SQL_HANDLE_DBC, _hcon, SQL_ROLLBACK);
    const int answer = eas::check(SQL_HANDLE_DBC, _hcon, rc);
    if (answer == 0)
        trace(severity_debug, "Transaction rolled back (DBConnection)\n");
    else
        trace(severity_debug,
              "Error occured while rolling back transaction. (DBConnection) rc=%d\n", answer);
    return answer;
}

int DBConnection::disconnect() {
    if (_status != 0)
        return _status;
    // A thread cancelled in here would leave the handle behind.
    const eas::DeferCancellation until_done;
    _status = -1;
    _autocommit = -1;
    const SQLRETURN refused = disconnectHandle();
    if (refused != SQL_SUCCESS) {
        freeConnHandle();
        return refused;
    }
    trace(severity_debug, "Disconnected from the database\n");
    return freeConnHandle();
}

/// Returns 0, or the ODBC result if the driver refuses even without a transaction.
SQLRETURN DBConnection::disconnectHandle() {
    const auto refused = [this](SQLRETURN rc) {
        return eas::check(SQL_HANDLE_DBC, _hcon, rc) != 0;
    };
    SQLRETURN rc = DBLibrary::get()->SQLDisconnect(_hcon);
    if (!refused(rc))
        return SQL_SUCCESS;
    // SQLite's driver refuses (25000) while a transaction is open, even one that has only read.
    TransRollback(_hcon);
    rc = DBLibrary::get()->SQLDisconnect(_hcon);
    if (!refused(rc))
        return SQL_SUCCESS;
    beginTransaction();
    TransRollback(_hcon);
    rc = DBLibrary::get()->SQLDisconnect(_hcon);
    return refused(rc) ? rc : SQLRETURN{SQL_SUCCESS};
}

/// Where the database has rolled back by itself (SQLite on a full disk), its driver cannot, and
/// believes for ever that a transaction is open. Now one is.
void DBConnection::beginTransaction() {
    eas::OdbcHandle statement(SQL_HANDLE_STMT);
    if (!SQL_SUCCEEDED(statement.allocate(_hcon)))
        return;
    std::string sql = "begin";
    execute(statement.get(), sql);
}

/// Returns 0, or the ODBC result of the first attempt if it failed.
SQLRETURN DBConnection::freeConnHandle() {
    const SQLHANDLE handle = std::exchange(_hcon, nullptr);
    if (!eas::is_handle(handle))
        return SQL_SUCCESS;
    const SQLRETURN rc = DBLibrary::get()->SQLFreeHandle(SQL_HANDLE_DBC, handle);
    if (SQL_SUCCEEDED(rc))
        return SQL_SUCCESS;
    const int answer = eas::check(SQL_HANDLE_DBC, handle, rc);
    // The driver manager keeps the handle of a connection that it believes is open. After any other
    // answer the handle is gone, and to touch it again would be to touch freed memory.
    if (rc == SQL_ERROR) {
        DBLibrary::get()->SQLDisconnect(handle);
        DBLibrary::get()->SQLFreeHandle(SQL_HANDLE_DBC, handle);
    }
    return answer != 0 ? rc : SQLRETURN{SQL_SUCCESS};
}
