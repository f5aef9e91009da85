// One ODBC connection: its environment and connection handles, the connect procedure with its
// retries, the schema switch, autocommit and the end of transactions.
//
// A connection belongs to one thread at a time. Data source, user, password and schema are held
// once per process and are not guarded: set them before threads connect.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <string>

#include "db/base_class/OdbcHandle.h"
#include "db/base_class/UserSwitch.h"

class DBConnection {
  public:
    /// With a properties file (null: none) replaces data source, user, password and schema by its
    /// values, a missing key giving the empty string. Does not connect.
    DBConnection(const char* propertiesFile, bool isPooled, int traceLevel);
    /// Frees the environment handle if this object made it. Does not disconnect.
    ~DBConnection();
    DBConnection(const DBConnection&) = delete;
    DBConnection& operator=(const DBConnection&) = delete;

    /// A new ODBC 3 environment handle, the caller's to free, or -1 (all bits set) after a failure.
    static SQLHANDLE createEnvHandle();
    /// Gives this object an environment handle of its own and returns it; -1 after a failure.
    SQLHANDLE setEnvHandle();
    /// Uses the caller's environment handle, which stays the caller's.
    void setEnvHandle(SQLHANDLE henv);
    [[nodiscard]] SQLHANDLE getEnvHandle() const noexcept { return _henv.get(); }
    /// Null while not connected.
    [[nodiscard]] SQLHANDLE getConnHandle() const noexcept { return _hcon.get(); }
    /// 0 connected, -1 not connected, otherwise the last ODBC result.
    [[nodiscard]] int getStatus() const noexcept { return _status; }
    [[nodiscard]] bool isPooled() const noexcept { return _isPooled; }
    [[nodiscard]] int trcLevel() const noexcept { return _trace_level; }
    void setTraceLevel(int level) noexcept { _trace_level = level; }

    /// Replaces each setting whose argument is not null.
    static void setDBinfo(const char* db, const char* user, const char* pwd, const char* schema);
    /// Clears all four.
    static void clearDBinfo() noexcept;
    /// Replace one setting; null clears it.
    static void setDbName(const char* db);
    static void setDbUser(const char* user);
    static void setDbPassword(const char* pwd);
    /// Replaces the schema and, when connected, switches to it: returns setSchema()'s result, else
    /// 0.
    int setDbSchema(const char* schema);

    /// Connects, with the settings that are not null replacing the process's. Returns 0 when
    /// connected, else -1 or the ODBC result; nothing is left allocated then but the environment
    /// handle, and the object can be used again. Codes that mean "not yet" are tried 20 times, a
    /// second apart, the thread being cancellable meanwhile; then the process is aborted unless the
    /// environment variable "ABORT_ON_DB_FAILED" says "NO". `unset` is called once connected, not
    /// after a refusal.
    int connect(const char* db, const char* user, const char* pwd, const char* schema,
                seteuid_fcn set, unseteuid_fcn unset);
    /// Disconnects and frees the connection handle; an open transaction is rolled back where the
    /// driver insists. Returns 0 or the ODBC result; when not connected, the status.
    int disconnect();
    /// Sends "set schema" (result ignored) and "set path" for the process's schema; returns the
    /// ODBC result of the latter.
    int setSchema();

    /// Asks the driver only while the state is unknown. A failed read gives false.
    bool isAutoCommit();
    /// Returns the ODBC result; 0 without a call when autocommit is on and stays on.
    int setAutoCommit(bool on);
    /// Returns the ODBC result.
    int commit();
    /// Returns the check's answer: 0, or 1 to 3 when the rollback failed.
    int rollback();

  private:
    /// Shared by all connections of the process, owned, null while unset. Plain pointers: no code
    /// runs for them when the library is loaded, and none takes them from a thread that is inside
    /// a call when the process ends.
    struct Settings {
        std::string* _db = nullptr;
        std::string* _user = nullptr;
        std::string* _pwd = nullptr;
        std::string* _schema = nullptr;
    };

    static void replace(std::string*& setting, const char* text);
    [[nodiscard]] static bool schemaDiffersFromUser() noexcept;
    static SQLRETURN sendSchema(SQLHANDLE hcon);
    bool connectWithRetries(SQLHANDLE hcon);
    bool connectOnce(SQLHANDLE hcon);
    bool waitForNextAttempt(int attempt);
    void dropEnvHandle();

    static Settings _settings;

    eas::OdbcHandle _henv{SQL_HANDLE_ENV};
    eas::OdbcHandle _hcon{SQL_HANDLE_DBC};
    std::int64_t _autocommit = -1;  ///< -1 unknown, 1 on, 0 off
    std::int32_t _status = -1;
    bool _freehandle = false;  ///< _henv is this object's own
    bool _isPooled;
    std::int32_t _trace_level;
};
