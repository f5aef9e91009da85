#include "db/base_class/OdbcHandle.h"

#include "base/CancelState.h"
#include "db/base_class/DBLibrary.h"

namespace eas {

OdbcHandle::~OdbcHandle() {
    const eas::DeferCancellation until_done;
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

SQLRETURN OdbcHandle::free() {
    if (!is_open())
        return SQL_SUCCESS;
    return free_handle(type_, release());
}

SQLRETURN free_handle(SQLSMALLINT type, SQLHANDLE handle) {
    const SQLRETURN rc = DBLibrary::get()->SQLFreeHandle(type, handle);
    if (rc == SQL_ERROR)
        DBLibrary::get()->SQLFreeHandle(type, handle);
    return rc;
}

}  // namespace eas
