// The entry points that the library calls, over the state in Manager.
#pragma GCC visibility push(default)
#include <sql.h>
#include <sqlext.h>
#pragma GCC visibility pop

#include <cstring>

#include "tests/support/ScriptedDriverManager/Manager.h"

using eas::test::Manager;

namespace {

Manager& manager() {
    return Manager::instance();
}

std::string text(const SQLCHAR* value) {
    return value != nullptr ? reinterpret_cast<const char*>(value) : "(null)";
}

std::string type_name(SQLSMALLINT type) {
    return type == SQL_HANDLE_ENV ? "env" : type == SQL_HANDLE_DBC ? "dbc" : "stmt";
}

/// For calls that only need their handle to live.
SQLRETURN on_live(const char* name, const std::string& arguments, SQLSMALLINT type,
                  SQLHANDLE handle) {
    return manager().call(name, arguments, [=] {
        return manager().find(type, handle) != nullptr ? SQL_SUCCESS : SQL_INVALID_HANDLE;
    });
}

}  // namespace

SQLRETURN SQLAllocHandle(SQLSMALLINT type, SQLHANDLE parent, SQLHANDLE* out) {
    return manager().call("SQLAllocHandle", type_name(type),
                          [=] { return manager().make(type, parent, out); });
}

SQLRETURN SQLFreeHandle(SQLSMALLINT type, SQLHANDLE handle) {
    return manager().call("SQLFreeHandle", type_name(type),
                          [=] { return manager().free(type, handle); });
}

SQLRETURN SQLSetEnvAttr(SQLHENV env, SQLINTEGER, SQLPOINTER value, SQLINTEGER) {
    return on_live("SQLSetEnvAttr", std::to_string(reinterpret_cast<std::uintptr_t>(value)),
                   SQL_HANDLE_ENV, env);
}

SQLRETURN SQLConnect(SQLHDBC con, SQLCHAR* dsn, SQLSMALLINT, SQLCHAR* user, SQLSMALLINT,
                     SQLCHAR* pwd, SQLSMALLINT) {
    const std::string arguments = text(dsn) + ", " + text(user) + ", " + text(pwd);
    return manager().call("SQLConnect", arguments, [=] {
        Manager::Handle* handle = manager().find(SQL_HANDLE_DBC, con);
        if (handle == nullptr)
            return SQL_INVALID_HANDLE;
        handle->connected = true;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLDisconnect(SQLHDBC con) {
    return manager().call("SQLDisconnect", "", [=] { return manager().disconnect(con); });
}

SQLRETURN SQLEndTran(SQLSMALLINT, SQLHANDLE con, SQLSMALLINT end) {
    return manager().call("SQLEndTran", end == SQL_COMMIT ? "commit" : "rollback", [=] {
        Manager::Handle* handle = manager().find(SQL_HANDLE_DBC, con);
        if (handle == nullptr)
            return SQL_INVALID_HANDLE;
        handle->in_transaction = false;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLExecDirect(SQLHSTMT stmt, SQLCHAR* sql, SQLINTEGER) {
    return manager().call("SQLExecDirect", text(sql), [=] {
        Manager::Handle* handle = manager().find(SQL_HANDLE_STMT, stmt);
        if (handle == nullptr)
            return SQL_INVALID_HANDLE;
        Manager::Handle* con = manager().find(SQL_HANDLE_DBC, handle->parent);
        con->in_transaction = !con->autocommit;
        return SQL_SUCCESS;
    });
}

// Four bytes, whatever length it is told: so do the drivers that are in use.
SQLRETURN SQLGetConnectAttr(SQLHDBC con, SQLINTEGER, SQLPOINTER value, SQLINTEGER, SQLINTEGER*) {
    return manager().call("SQLGetConnectAttr", "autocommit", [=] {
        const Manager::Handle* handle = manager().find(SQL_HANDLE_DBC, con);
        if (handle == nullptr)
            return SQL_INVALID_HANDLE;
        const std::int32_t on = handle->autocommit ? 1 : 0;
        std::memcpy(value, &on, sizeof(on));
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLSetConnectAttr(SQLHDBC con, SQLINTEGER, SQLPOINTER value, SQLINTEGER) {
    return manager().call("SQLSetConnectAttr", value != nullptr ? "on" : "off", [=] {
        Manager::Handle* handle = manager().find(SQL_HANDLE_DBC, con);
        if (handle == nullptr)
            return SQL_INVALID_HANDLE;
        handle->autocommit = value != nullptr;
        return SQL_SUCCESS;
    });
}

SQLRETURN SQLGetDiagRec(SQLSMALLINT, SQLHANDLE, SQLSMALLINT number, SQLCHAR* state,
                        SQLINTEGER* native, SQLCHAR* message, SQLSMALLINT size,
                        SQLSMALLINT* length) {
    return manager().call("SQLGetDiagRec", std::to_string(number), [=] {
        const eas::test::Diagnostic* record = manager().diagnostic(number);
        if (record == nullptr)
            return SQL_NO_DATA;
        const auto room = static_cast<std::size_t>(size) - 1;
        const std::string shown = record->message.substr(0, room);
        std::memcpy(state, record->state.c_str(), 6);
        std::memcpy(message, shown.c_str(), shown.size() + 1);
        *native = record->native;
        *length = static_cast<SQLSMALLINT>(record->message.size());
        return record->message.size() > room ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS;
    });
}

SQLRETURN SQLFreeStmt(SQLHSTMT stmt, SQLUSMALLINT option) {
    return on_live("SQLFreeStmt", std::to_string(option), SQL_HANDLE_STMT, stmt);
}

SQLRETURN SQLBindCol(SQLHSTMT stmt, SQLUSMALLINT number, SQLSMALLINT, SQLPOINTER, SQLLEN, SQLLEN*) {
    return on_live("SQLBindCol", std::to_string(number), SQL_HANDLE_STMT, stmt);
}

SQLRETURN SQLBindParameter(SQLHSTMT stmt, SQLUSMALLINT number, SQLSMALLINT, SQLSMALLINT,
                           SQLSMALLINT, SQLULEN, SQLSMALLINT, SQLPOINTER, SQLLEN, SQLLEN*) {
    return on_live("SQLBindParameter", std::to_string(number), SQL_HANDLE_STMT, stmt);
}

// Without a script there are no rows.
SQLRETURN SQLFetch(SQLHSTMT stmt) {
    return manager().call("SQLFetch", "", [=] {
        return manager().find(SQL_HANDLE_STMT, stmt) != nullptr ? SQL_NO_DATA : SQL_INVALID_HANDLE;
    });
}
