// Owner of one ODBC handle. An instance belongs to one thread at a time.
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

/// Frees a handle, which is still valid after SQL_ERROR and is then tried once more: an open one
/// would keep its connection from closing. Returns the result of the first attempt.
SQLRETURN free_handle(SQLSMALLINT type, SQLHANDLE handle);

class OdbcHandle {
  public:
    /// `type` is SQL_HANDLE_ENV, SQL_HANDLE_DBC or SQL_HANDLE_STMT.
    explicit OdbcHandle(SQLSMALLINT type) noexcept : type_(type) {}
    OdbcHandle(OdbcHandle&& other) noexcept : type_(other.type_), handle_(other.release()) {}
    OdbcHandle(const OdbcHandle&) = delete;
    OdbcHandle& operator=(const OdbcHandle&) = delete;
    /// Frees what is held, result ignored. A pending cancellation waits: it could not leave here.
    ~OdbcHandle();

    /// Frees what is held and allocates a handle below `parent`. Returns the ODBC result; after an
    /// error nothing is held.
    SQLRETURN allocate(SQLHANDLE parent);
    /// Frees what is held and returns the ODBC result (0 if nothing was); nothing is held
    /// afterwards.
    SQLRETURN free();

    [[nodiscard]] SQLHANDLE get() const noexcept { return handle_; }
    [[nodiscard]] bool is_open() const noexcept { return is_handle(handle_); }
    [[nodiscard]] SQLHANDLE release() noexcept { return std::exchange(handle_, no_handle()); }

  private:
    SQLSMALLINT type_;
    SQLHANDLE handle_ = no_handle();
};

}  // namespace eas
