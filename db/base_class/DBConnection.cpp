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
#include "db/base_class/Properties.h"
#include "db/base_class/Statement.h"

using eas::CancelState;
using eas::severity_debug;
using eas::severity_error;
using eas::trace;

namespace {

constexpr int max_attempts = 20;

/// Null for a setting that is not set.
SQLCHAR* odbc_text(const std::string* setting) {
    return setting != nullptr ? eas::odbc_text(setting->c_str()) : nullptr;
}

/// A text with its length, as SQLConnect takes user and password. One that is not set, or empty, is
/// an empty text of length 0: on a null one the driver manager's connection pooling crashes
/// (unixODBC 2.3.11), and an empty one of length SQL_NTS replaces the data source's own (MariaDB's
/// driver).
struct Credential {
    explicit Credential(const std::string* set) : text(odbc_text(set)) {
        static SQLCHAR unset[] = "";
        if (set == nullptr || set->empty()) {
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

bool abort_is_refused() {
    const char* choice = std::getenv("ABORT_ON_DB_FAILED");
    return choice != nullptr && ::strcasecmp(choice, "NO") == 0;
}

}  // namespace

DBConnection::Settings DBConnection::_settings;

DBConnection::DBConnection(const char* propertiesFile, bool isPooled, int traceLevel)
    : _isPooled(isPooled), _trace_level(traceLevel) {
    if (propertiesFile == nullptr)
        return;
    Properties properties(propertiesFile);
    setDBinfo(properties["database_name"].c_str(), properties["database_user"].c_str(),
              properties["database_password"].c_str(), properties["database_schema_name"].c_str());
}

DBConnection::~DBConnection() {
    const eas::DeferCancellation until_done;
    // A connection that is still open stays so: disconnect() closes it.
    static_cast<void>(_hcon.release());
    dropEnvHandle();
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
    dropEnvHandle();
    _henv.reset(createEnvHandle());
    _freehandle = true;
    return _henv.get();
}

void DBConnection::setEnvHandle(SQLHANDLE henv) {
    if (henv == _henv.get())
        return;
    dropEnvHandle();
    _henv.reset(henv);
}

/// Frees the environment handle, or leaves it to the caller whose it is.
void DBConnection::dropEnvHandle() {
    if (!_freehandle)
        static_cast<void>(_henv.release());
    _henv.free();
    _freehandle = false;
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
    if (_henv.get() == eas::no_handle())
        setEnvHandle();
    setDBinfo(db, user, pwd, schema);
    if (!_henv.is_open())
        return _status = -1;

    // Given back, unless it becomes this object's at the end.
    eas::OdbcHandle made(SQL_HANDLE_DBC);
    const SQLRETURN allocated = made.allocate(_henv.get());
    _status = allocated;
    if (eas::check(SQL_HANDLE_ENV, _henv.get(), allocated) != 0)
        return _status;
    eas::UserSwitch user_switch(set, unset, user, schema);
    if (!connectWithRetries(made.get())) {
        // The caller who switched the user is told by the result and switches back himself.
        user_switch.stay();
        return _status;
    }
    made.connected();
    _status = -1;
    trace(severity_debug, "Connected to the database: %s\n", shown(_settings._db));
    user_switch.back();
    const SQLRETURN rc = schemaDiffersFromUser() ? sendSchema(made.get()) : SQLRETURN{SQL_SUCCESS};
    if (SQL_SUCCEEDED(rc))
        _hcon.take(made);
    return _status = SQL_SUCCEEDED(rc) ? 0 : rc;
}

bool DBConnection::schemaDiffersFromUser() noexcept {
    return _settings._schema != nullptr && _settings._user != nullptr &&
           *_settings._schema != *_settings._user;
}

bool DBConnection::connectWithRetries(SQLHANDLE hcon) {
    for (int attempt = 1;; ++attempt) {
        if (!connectOnce(hcon))
            return false;
        if (SQL_SUCCEEDED(_status))
            return true;
        if (!waitForNextAttempt(attempt))
            return false;
    }
}

/// Returns false after an answer that no further attempt would change.
bool DBConnection::connectOnce(SQLHANDLE hcon) {
    const Credential user(_settings._user);
    const Credential password(_settings._pwd);
    const SQLRETURN rc =
        DBLibrary::get()->SQLConnect(hcon, odbc_text(_settings._db), SQL_NTS, user.text,
                                     user.length, password.text, password.length);
    _status = rc;
    if (rc == SQL_SUCCESS)
        return true;
    if (eas::check(SQL_HANDLE_DBC, hcon, rc) != 0)
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
    return sendSchema(_hcon.get());
}

SQLRETURN DBConnection::sendSchema(SQLHANDLE hcon) {
    eas::Statement statement;
    const SQLRETURN allocated = statement.allocate(hcon);
    if (eas::check(SQL_HANDLE_DBC, hcon, allocated) != 0 || !statement.is_open())
        return allocated;

    std::string sql = std::string("set schema ") + shown(_settings._schema);
    statement.execute(sql);  // not every database has it; the path decides
    trace(severity_debug, "Setting Schema: %s\n", sql.c_str());

    sql = std::string("set path = current path,  ") + shown(_settings._schema);
    const SQLRETURN rc = statement.execute(sql);
    trace(severity_debug, "Setting Schema Path: %s\n", sql.c_str());
    if (rc != SQL_SUCCESS)
        eas::check_statement(rc, hcon, statement.get());
    return rc;
}

bool DBConnection::isAutoCommit() {
    if (_autocommit == -1) {
        // Drivers write four bytes whatever length they are told; the other four must be zero.
        std::int64_t value = 0;
        const SQLRETURN rc = DBLibrary::get()->SQLGetConnectAttr(_hcon.get(), SQL_ATTR_AUTOCOMMIT,
                                                                 &value, sizeof(value), nullptr);
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
        DBLibrary::get()->SQLSetConnectAttr(_hcon.get(), SQL_ATTR_AUTOCOMMIT, value, SQL_NTS);
    // What was asked for counts from now on, also when the driver refused it.
    _autocommit = on ? 1 : 0;
    return rc;
}

int DBConnection::commit() {
    const SQLRETURN rc = DBLibrary::get()->SQLEndTran(SQL_HANDLE_DBC, _hcon.get(), SQL_COMMIT);
    // A failed commit is reported, not rolled back: that is the caller's to decide.
    if (rc == SQL_SUCCESS)
        trace(severity_debug, "Transaction committed\n");
    else
        trace(severity_debug, "Error while attempting to commit the transaction, rc=%d\n", rc);
    return rc;
}

int DBConnection::rollback() {
    trace(severity_debug, "Rolling back the transaction (DBConnection)\n");
    const SQLRETURN rc = DBLibrary::get()->SQLEndTran(SQL_HANDLE_DBC, _hcon.get(), SQL_ROLLBACK);
    const int answer = eas::check(SQL_HANDLE_DBC, _hcon.get(), rc);
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
    const SQLRETURN refused = _hcon.disconnect();
    if (refused == SQL_SUCCESS)
        trace(severity_debug, "Disconnected from the database\n");
    const SQLRETURN freed = _hcon.free();
    return refused != SQL_SUCCESS ? refused : freed;
}
