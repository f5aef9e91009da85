#include "db/base_class/DBDiagnostics.h"

#include <array>
#include <cstdio>
#include <limits>

#include "db/base_class/DBLibrary.h"
#include "db/base_class/DBTracer.h"

using eas::severity_debug;
using eas::severity_error;
using eas::trace;

namespace {

/// SQLSTATE with its terminating zero, and the longest message read.
using SqlState = std::array<SQLCHAR, 6>;
using Message = std::array<SQLCHAR, 513>;

template <typename Text>
const char* as_text(Text& text) {
    text.back() = 0;  // whatever the driver wrote, the text ends inside its buffer
    return reinterpret_cast<const char*>(text.data());
}

void trace_diagnostics_record(SqlState& state, SQLINTEGER native, Message& message) {
    if (native != 0)
        trace(severity_error, "%s (SQL State=%s, Native Error Code=%d)\n", as_text(message),
              as_text(state), native);
    else
        trace(severity_error, "%s (SQL State=%s) \n", as_text(message), as_text(state));
}

}  // namespace

int HandleInfoPrint(SQLSMALLINT handleType, SQLHANDLE h, SQLRETURN rc, int /*line*/,
                    const char* /*file*/, bool printTrace) {
    switch (rc) {
        case SQL_SUCCESS:
        case SQL_SUCCESS_WITH_INFO:
        case SQL_STILL_EXECUTING:
        case SQL_NEED_DATA:
        case SQL_NO_DATA:
            return 0;
        case SQL_INVALID_HANDLE:
            trace(severity_debug, "SQL_INVALID_HANDLE (%d)\n", rc);
            return 1;
        case SQL_ERROR:
            trace(severity_debug, "SQL_ERROR (%d)\n", rc);
            HandleDiagnosticsPrint(handleType, h, printTrace);
            return 2;
        default:
            trace(severity_debug, "Received unexpected error code (%d)\n", rc);
            return 3;
    }
}

void HandleDiagnosticsPrint(SQLSMALLINT handleType, SQLHANDLE h, bool printTrace) {
    // The limit only stops at a driver that never says it has no more.
    for (SQLSMALLINT record = 1; record < std::numeric_limits<SQLSMALLINT>::max(); ++record) {
        SqlState state{};
        Message message{};
        SQLINTEGER native = 0;
        SQLSMALLINT length = 0;
        const SQLRETURN rc =
            DBLibrary::get()->SQLGetDiagRec(handleType, h, record, state.data(), &native,
                                            message.data(), SQLSMALLINT{message.size()}, &length);
        if (rc != SQL_SUCCESS)
            return;
        if (printTrace)
            trace_diagnostics_record(state, native, message);
    }
}

int StmtResourcesFree(SQLHANDLE hstmt) {
    constexpr std::array<SQLUSMALLINT, 3> steps{SQL_UNBIND, SQL_RESET_PARAMS, SQL_CLOSE};
    for (const SQLUSMALLINT step : steps) {
        const SQLRETURN rc = DBLibrary::get()->SQLFreeStmt(hstmt, step);
        if (eas::check(SQL_HANDLE_STMT, hstmt, rc) != 0)
            return 1;
    }
    return 0;
}

void TransRollback(SQLHANDLE hdbc) {
    trace(severity_debug, "Rolling back the transaction... (utilcli)\n");
    const SQLRETURN rc = DBLibrary::get()->SQLEndTran(SQL_HANDLE_DBC, hdbc, SQL_ROLLBACK);
    if (rc == SQL_SUCCESS)
        trace(severity_debug, "The transaction rolled back. (utilcli)\n");
    else
        trace(severity_debug, "Error occured while rolling back the transaction (utilcli). rc=%d\n",
              rc);
}

void HandleLocationPrint(SQLRETURN rc, int line, const char* file) {
    std::fprintf(stderr, "  cliRC = %d\n", rc);
    std::fprintf(stderr, "  line  = %d\n", line);
    std::fprintf(stderr, "  file  = %s\n", file);
}

namespace eas {

int check_statement(SQLRETURN rc, SQLHANDLE hdbc, SQLHANDLE hstmt, bool printTrace) {
    const int answer = HandleInfoPrint(SQL_HANDLE_STMT, hstmt, rc, __LINE__, __FILE__, printTrace);
    if (answer == 2)
        StmtResourcesFree(hstmt);
    if (answer != 0)
        TransRollback(hdbc);
    return answer;
}

}  // namespace eas
