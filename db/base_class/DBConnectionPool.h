// The process's pool of database connections, for hosts with many threads. Any thread may check
// connections out and in; init() and terminate() frame all use.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "db/base_class/DBConnection.h"

class DBConnectionPoolImpl;

class DBConnectionPool {
  public:
    /// Creates the pool from a properties file, unless there is one already.
    static void init(const char* propertiesFile);
    /// Creates the pool, unless there is one already. Null texts leave the process's settings.
    static void init(const char* db, const char* user, const char* pwd, const char* schema, int min,
                     int max, seteuid_fcn set, unseteuid_fcn unset);
    /// The pool, or null.
    static DBConnectionPool* Instance() noexcept { return _instance; }
    /// Disconnects every connection, those in use too, and destroys the pool.
    static void terminate();

    /// Use init(); public for std::make_unique only.
    explicit DBConnectionPool(std::unique_ptr<DBConnectionPoolImpl> impl) noexcept;
    ~DBConnectionPool();
    DBConnectionPool(const DBConnectionPool&) = delete;
    DBConnectionPool& operator=(const DBConnectionPool&) = delete;

    /// A connected connection that stays the pool's, to be handed to checkin(); null if none was
    /// free and no further one could be opened. The number of connections is not limited.
    DBConnection* checkout();
    /// Takes a connection back, with whatever its last user left uncommitted: end the transaction
    /// first, or the next user's commit or rollback takes it along. Null, and one that the pool did
    /// not hand out, changes nothing.
    void checkin(DBConnection* con);
    /// Disconnects the available connections above the minimum.
    void doCleanup();

    [[nodiscard]] std::size_t availableCount() const;
    [[nodiscard]] std::size_t usedCount() const;
    /// The configured maximum, which is reported and does not limit.
    [[nodiscard]] unsigned maxCount() const noexcept;
    [[nodiscard]] unsigned minCount() const noexcept;
    [[nodiscard]] int trcLevel() const noexcept;
    /// The trace level of connections made from now on.
    void setTraceLevel(int level) noexcept;

  private:
    template <typename... Arguments>
    static void create(Arguments... arguments);

    static std::atomic<DBConnectionPool*> _instance;
    static std::atomic<bool> _initialized;

    std::unique_ptr<DBConnectionPoolImpl> _impl;
};
