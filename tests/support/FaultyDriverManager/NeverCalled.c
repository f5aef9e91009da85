/* The entry points that the library resolves and never calls: each ends the test that reaches it.
   Without ODBC's headers, since only the names matter. */
#include <stdlib.h>

__attribute__((used)) static void end_the_test(void) {
    abort();
}

#pragma GCC visibility push(default)
__attribute__((alias("end_the_test"))) void SQLAllocConnect(void), SQLAllocEnv(void),
    SQLAllocStmt(void), SQLCancel(void), SQLCloseCursor(void), SQLColAttribute(void),
    SQLColumns(void), SQLDescribeCol(void), SQLError(void), SQLExecute(void), SQLFetchScroll(void),
    SQLFreeConnect(void), SQLFreeEnv(void), SQLGetConnectOption(void), SQLGetCursorName(void),
    SQLGetData(void), SQLGetDiagField(void), SQLGetEnvAttr(void), SQLGetFunctions(void),
    SQLGetInfo(void), SQLGetStmtAttr(void), SQLGetStmtOption(void), SQLGetTypeInfo(void),
    SQLNumResultCols(void), SQLParamData(void), SQLPrepare(void), SQLPutData(void),
    SQLRowCount(void), SQLSetConnectOption(void), SQLSetCursorName(void), SQLSetStmtAttr(void),
    SQLSetStmtOption(void), SQLSpecialColumns(void), SQLStatistics(void), SQLTables(void),
    SQLTransact(void);
