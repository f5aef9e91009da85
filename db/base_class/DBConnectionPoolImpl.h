// The state of the connection pool. It owns every connection in both of its lists.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/ThreadSafety.h"
#include "db/base_class/DB_Ptr.h"

class DBConnectionPoolImpl {
  public:
    /// Guards the lists of every pool and the creation of the process's pool.
    static eas::Mutex _connectionPool_mutex;

    explicit DBConnectionPoolImpl(const char* propertiesFile);
    DBConnectionPoolImpl(const char* db, const char* user, const char* pwd, const char* schema,
                         int min, int max, seteuid_fcn set, unseteuid_fcn unset);
    ~DBConnectionPoolImpl();
    DBConnectionPoolImpl(const DBConnectionPoolImpl&) = delete;
    DBConnectionPoolImpl& operator=(const DBConnectionPoolImpl&) = delete;

    DBConnection* checkout() EAS_EXCLUDES(_connectionPool_mutex);
    void checkin(DBConnection* con) EAS_EXCLUDES(_connectionPool_mutex);
    void doCleanup() EAS_EXCLUDES(_connectionPool_mutex);

    [[nodiscard]] std::size_t availableCount() const EAS_EXCLUDES(_connectionPool_mutex);
    [[nodiscard]] std::size_t usedCount() const EAS_EXCLUDES(_connectionPool_mutex);
    [[nodiscard]] unsigned maxCount() const noexcept { return _maxConnections; }
    [[nodiscard]] unsigned minCount() const noexcept { return _minConnections; }
    [[nodiscard]] int trcLevel() const noexcept { return _trace_level; }
    void setTraceLevel(int level) noexcept { _trace_level = level; }

  private:
    using Connections = std::vector<DB_Ptr>;

    /// Part of the constructors: no other thread knows the pool yet, so the lists need no lock.
    void initPool() EAS_NO_THREAD_SAFETY_ANALYSIS;
    [[nodiscard]] DB_Ptr openConnection(bool pooled) const;
    DBConnection* takeAvailable();
    DBConnection* expand();
    DB_Ptr takeUsed(const DBConnection* con);
    void traceCounts(const char* what) const;

    std::optional<std::string> _database;
    std::optional<std::string> _user;
    std::optional<std::string> _pwd;
    std::optional<std::string> _schema;
    std::uint32_t _minConnections;
    std::uint32_t _maxConnections;
    Connections _usedConnections EAS_GUARDED_BY(_connectionPool_mutex);
    Connections _availableConnections EAS_GUARDED_BY(_connectionPool_mutex);
    std::atomic<int> _trace_level{0};
    seteuid_fcn db_seteuid = nullptr;
    unseteuid_fcn db_unseteuid = nullptr;
};
