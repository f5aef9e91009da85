// What follows an ODBC call that did not answer 0: the meaning of the return code, the diagnostics
// records in the trace log, and the rollback. Messages have severity 7 unless said.
#pragma once

#include <sql.h>
#include <sqlext.h>

/// Says what `rc` asks of the caller: 0 go on (success, information, still executing, need data, no
/// data), 1 invalid handle, 2 SQL_ERROR (its diagnostics records are read), 3 a code ODBC does not
/// have. `line` and `file` name the calling site for a debugger; they are not printed.
int HandleInfoPrint(SQLSMALLINT handleType, SQLHANDLE h, SQLRETURN rc, int line, const char* file,
                    bool printTrace);

/// Reads the diagnostics records of `h`; logs each at severity 3 if `printTrace`.
void HandleDiagnosticsPrint(SQLSMALLINT handleType, SQLHANDLE h, bool printTrace);

/// Unbinds columns and parameters of a statement and closes its cursor. Returns 0, or 1 at the
/// first step that failed.
int StmtResourcesFree(SQLHANDLE hstmt);

/// Rolls back the transaction of the connection; the outcome is only logged.
void TransRollback(SQLHANDLE hdbc);

/// Writes a return code and its place to standard error, for a debugger's session.
void HandleLocationPrint(SQLRETURN rc, int line, const char* file);

namespace eas {

/// HandleInfoPrint with the diagnostics on.
inline int check(SQLSMALLINT handle_type, SQLHANDLE handle, SQLRETURN rc) {
    return HandleInfoPrint(handle_type, handle, rc, __LINE__, __FILE__, true);
}

/// The one check after a call on a statement: looks at `rc`, frees the statement's resources after
/// SQL_ERROR and rolls back after every failure. Returns HandleInfoPrint's answer; not 0 means give
/// up.
int check_statement(SQLRETURN rc, SQLHANDLE hdbc, SQLHANDLE hstmt, bool printTrace = true);

}  // namespace eas
