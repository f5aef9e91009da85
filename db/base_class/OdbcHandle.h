// Owner of one ODBC handle: an environment, a connection or a statement. An instance belongs to one
// thread at a time.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <utility>

namespace eas {

/// "No handle" of this layer: all bits set, since null is a value the driver manager hands out.
inline SQLHANDLE no_handle() noexcept {
    return reinterpret_cast<SQLHANDLE>(-1);
}

/// Whether a handle may be given to the driver manager: it crashes on "no handle".
inline bool is_handle(SQLHANDLE handle) noexcept {
    return handle != SQL_NULL_HANDLE && handle != no_handle();
}

class OdbcHandle {
  public:
    /// `type` is SQL_HANDLE_ENV, SQL_HANDLE_DBC or SQL_HANDLE_STMT.
    explicit OdbcHandle(SQLSMALLINT type) noexcept : type_(type), handle_(none()) {}
    OdbcHandle(const OdbcHandle&) = delete;
    OdbcHandle& operator=(const OdbcHandle&) = delete;
    /// Frees what is held, result ignored. A pending cancellation waits: it could not leave here.
    ~OdbcHandle();

    /// Frees what is held and allocates a handle below `parent`. Returns the ODBC result; after an
    /// error nothing is held.
    SQLRETURN allocate(SQLHANDLE parent);
    /// Frees what is held and takes over `handle`, which may be none.
    void reset(SQLHANDLE handle);
    /// Frees what is held and takes over what `other`, of the same type, holds.
    void take(OdbcHandle& other);
    /// Of a connection: it is connected from here on, and will be disconnected before it is freed.
    void connected() noexcept { connected_ = true; }
    /// Of a connection: disconnects, once; an open transaction is rolled back where the driver
    /// insists. Returns 0, or the ODBC result if the driver refuses even without a transaction.
    SQLRETURN disconnect();
    /// Frees what is held and returns the ODBC result, 0 if it is no failure or nothing was held;
    /// nothing is held afterwards.
    SQLRETURN free();

    /// What is held. When nothing is: null for a connection, which the driver manager refuses, and
    /// no_handle() for the others.
    [[nodiscard]] SQLHANDLE get() const noexcept { return handle_; }
    [[nodiscard]] bool is_open() const noexcept { return is_handle(handle_); }
    [[nodiscard]] SQLHANDLE release() noexcept {
        connected_ = false;
        return std::exchange(handle_, none());
    }

  private:
    [[nodiscard]] SQLHANDLE none() const noexcept {
        return type_ == SQL_HANDLE_DBC ? SQLHANDLE{SQL_NULL_HANDLE} : no_handle();
    }

    SQLSMALLINT type_;
    bool connected_ = false;
    SQLHANDLE handle_;
};

}  // namespace eas
