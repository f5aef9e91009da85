#include "db/base_class/OdbcHandle.h"

#include "base/CancelState.h"
#include "db/base_class/DBDiagnostics.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/Statement.h"

namespace eas {
namespace {

/// Where the database has rolled back by itself (SQLite on a full disk), its driver cannot, and
/// believes for ever that a transaction is open. Now one is.
void begin_transaction(SQLHANDLE hdbc) {
    Statement statement;
    if (SQL_SUCCEEDED(statement.allocate(hdbc)))
        statement.execute("begin");
}

}  // namespace

OdbcHandle::~OdbcHandle() {
    const DeferCancellation until_done;
    free();
}

SQLRETURN OdbcHandle::allocate(SQLHANDLE parent) {
    free();
    SQLHANDLE handle = SQL_NULL_HANDLE;
    const SQLRETURN rc = DBLibrary::get()->SQLAllocHandle(type_, parent, &handle);
    if (rc >= 0 && is_handle(handle))
        handle_ = handle;
    // A success without a handle is none: driver managers do not bear the calls that would follow.
    return SQL_SUCCEEDED(rc) && !is_open() ? SQLRETURN{SQL_ERROR} : rc;
}

void OdbcHandle::reset(SQLHANDLE handle) {
    free();
    handle_ = handle;
}

void OdbcHandle::take(OdbcHandle& other) {
    const bool connected = other.connected_;
    reset(other.release());
    connected_ = connected;
}

SQLRETURN OdbcHandle::disconnect() {
    connected_ = false;
    const auto refused = [this](SQLRETURN rc) { return check(SQL_HANDLE_DBC, handle_, rc) != 0; };
    if (!refused(DBLibrary::get()->SQLDisconnect(handle_)))
        return SQL_SUCCESS;
    // SQLite's driver refuses (25000) while a transaction is open, even one that has only read.
    TransRollback(handle_);
    if (!refused(DBLibrary::get()->SQLDisconnect(handle_)))
        return SQL_SUCCESS;
    begin_transaction(handle_);
    TransRollback(handle_);
    const SQLRETURN rc = DBLibrary::get()->SQLDisconnect(handle_);
    return refused(rc) ? rc : SQLRETURN{SQL_SUCCESS};
}

SQLRETURN OdbcHandle::free() {
    if (!is_open())
        return SQL_SUCCESS;
    if (connected_)
        disconnect();
    const SQLHANDLE handle = release();
    const SQLRETURN rc = DBLibrary::get()->SQLFreeHandle(type_, handle);
    if (SQL_SUCCEEDED(rc))
        return SQL_SUCCESS;
    const bool is_connection = type_ == SQL_HANDLE_DBC;
    const bool failed = !is_connection || check(type_, handle, rc) != 0;
    // The handle is still valid after SQL_ERROR: an open statement would keep its connection from
    // closing, and a connection that is believed open keeps itself. After any other answer the
    // handle is gone, and to touch it again would be to touch freed memory.
    if (rc == SQL_ERROR) {
        if (is_connection)
            DBLibrary::get()->SQLDisconnect(handle);
        DBLibrary::get()->SQLFreeHandle(type_, handle);
    }
    return failed ? rc : SQLRETURN{SQL_SUCCESS};
}

}  // namespace eas
