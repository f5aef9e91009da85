// The entry points that the library calls: each goes on to the real one, unless a fault is met.
#pragma GCC visibility push(default)
#include <sql.h>
#include <sqlext.h>
#pragma GCC visibility pop

#include <initializer_list>

#include "tests/support/FaultyDriverManager/Manager.h"

using eas::test::Fault;
using eas::test::FaultyManager;

namespace {

/// What became of a call: the answer, and that of the real one (SQL_ERROR if it was not called).
struct Outcome {
    SQLRETURN answer;
    SQLRETURN real;
};

std::string text(const SQLCHAR* value) {
    return value != nullptr ? reinterpret_cast<const char*>(value) : "(null)";
}

std::string numbers(std::initializer_list<SQLLEN> all) {
    std::string joined;
    for (const SQLLEN number : all)
        joined += (joined.empty() ? "" : ":") + std::to_string(number);
    return joined;
}

template <typename... Arguments>
Outcome forward_said(const char* entry_point, const std::string& said, Arguments... arguments) {
    FaultyManager& manager = FaultyManager::instance();
    const FaultyManager::Crossing crossing(manager);
    const Fault* fault = manager.meet(entry_point, said);
    if (fault != nullptr && !fault->takes_effect)
        return {fault->code, SQL_ERROR};
    const auto real = reinterpret_cast<SQLRETURN (*)(Arguments...)>(manager.real(entry_point));
    const SQLRETURN rc = real(arguments...);
    return {fault != nullptr && rc >= 0 ? fault->code : rc, rc};
}

template <typename... Arguments>
Outcome forward(const char* entry_point, Arguments... arguments) {
    return forward_said(entry_point, {}, arguments...);
}

}  // namespace

SQLRETURN SQLAllocHandle(SQLSMALLINT type, SQLHANDLE parent, SQLHANDLE* out) {
    const Outcome outcome = forward("SQLAllocHandle", type, parent, out);
    const FaultyManager::Crossing crossing(FaultyManager::instance());
    if (SQL_SUCCEEDED(outcome.real))
        FaultyManager::instance().made(*out, type, parent);
    return outcome.answer;
}

SQLRETURN SQLFreeHandle(SQLSMALLINT type, SQLHANDLE handle) {
    const Outcome outcome = forward("SQLFreeHandle", type, handle);
    const FaultyManager::Crossing crossing(FaultyManager::instance());
    if (SQL_SUCCEEDED(outcome.real))
        FaultyManager::instance().freed(handle);
    return outcome.answer;
}

SQLRETURN SQLDisconnect(SQLHDBC con) {
    const Outcome outcome = forward("SQLDisconnect", con);
    const FaultyManager::Crossing crossing(FaultyManager::instance());
    if (SQL_SUCCEEDED(outcome.real))
        FaultyManager::instance().disconnected(con);
    return outcome.answer;
}

SQLRETURN SQLSetEnvAttr(SQLHENV env, SQLINTEGER attribute, SQLPOINTER value, SQLINTEGER length) {
    return forward("SQLSetEnvAttr", env, attribute, value, length).answer;
}

SQLRETURN SQLConnect(SQLHDBC con, SQLCHAR* dsn, SQLSMALLINT dsn_length, SQLCHAR* user,
                     SQLSMALLINT user_length, SQLCHAR* password, SQLSMALLINT password_length) {
    const FaultyManager::Crossing crossing(FaultyManager::instance());
    const std::string said = text(dsn) + ", " + text(user) + ", " + text(password);
    return forward_said("SQLConnect", said, con, dsn, dsn_length, user, user_length, password,
                        password_length)
        .answer;
}

SQLRETURN SQLGetConnectAttr(SQLHDBC con, SQLINTEGER attribute, SQLPOINTER value, SQLINTEGER size,
                            SQLINTEGER* length) {
    return forward("SQLGetConnectAttr", con, attribute, value, size, length).answer;
}

SQLRETURN SQLSetConnectAttr(SQLHDBC con, SQLINTEGER attribute, SQLPOINTER value,
                            SQLINTEGER length) {
    return forward("SQLSetConnectAttr", con, attribute, value, length).answer;
}

SQLRETURN SQLEndTran(SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT how) {
    const char* const said = how == SQL_COMMIT ? "commit" : "rollback";
    return forward_said("SQLEndTran", said, type, handle, how).answer;
}

SQLRETURN SQLExecDirect(SQLHSTMT statement, SQLCHAR* sql, SQLINTEGER length) {
    const FaultyManager::Crossing crossing(FaultyManager::instance());
    return forward_said("SQLExecDirect", text(sql), statement, sql, length).answer;
}

SQLRETURN SQLBindCol(SQLHSTMT statement, SQLUSMALLINT column, SQLSMALLINT type, SQLPOINTER value,
                     SQLLEN size, SQLLEN* indicator) {
    const FaultyManager::Crossing crossing(FaultyManager::instance());
    const std::string said = numbers({column, type, size, indicator != nullptr ? *indicator : -9});
    return forward_said("SQLBindCol", said, statement, column, type, value, size, indicator).answer;
}

SQLRETURN SQLBindParameter(SQLHSTMT statement, SQLUSMALLINT number, SQLSMALLINT direction,
                           SQLSMALLINT value_type, SQLSMALLINT type, SQLULEN column_size,
                           SQLSMALLINT digits, SQLPOINTER value, SQLLEN size, SQLLEN* indicator) {
    const FaultyManager::Crossing crossing(FaultyManager::instance());
    const std::string said =
        numbers({number, direction, value_type, type, static_cast<SQLLEN>(column_size), digits,
                 size, indicator != nullptr ? 1 : 0});
    return forward_said("SQLBindParameter", said, statement, number, direction, value_type, type,
                        column_size, digits, value, size, indicator)
        .answer;
}

SQLRETURN SQLFetch(SQLHSTMT statement) {
    return forward("SQLFetch", statement).answer;
}

SQLRETURN SQLFreeStmt(SQLHSTMT statement, SQLUSMALLINT option) {
    return forward("SQLFreeStmt", statement, option).answer;
}

SQLRETURN SQLGetDiagRec(SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT record, SQLCHAR* state,
                        SQLINTEGER* native, SQLCHAR* message, SQLSMALLINT size,
                        SQLSMALLINT* length) {
    return forward("SQLGetDiagRec", type, handle, record, state, native, message, size, length)
        .answer;
}
