/* The entry points that the library resolves and never calls: each ends the test that reaches it.
   Without ODBC's headers, since only the names matter. */
#include <stdlib.h>

#pragma GCC visibility push(default)
#define NEVER_CALLED(name) \
    void name(void);       \
    void name(void) {      \
        abort();           \
    }

NEVER_CALLED(SQLAllocConnect)
NEVER_CALLED(SQLAllocEnv)
NEVER_CALLED(SQLAllocStmt)
NEVER_CALLED(SQLCancel)
NEVER_CALLED(SQLCloseCursor)
NEVER_CALLED(SQLColAttribute)
NEVER_CALLED(SQLColumns)
NEVER_CALLED(SQLDescribeCol)
NEVER_CALLED(SQLError)
NEVER_CALLED(SQLExecute)
NEVER_CALLED(SQLFetchScroll)
NEVER_CALLED(SQLFreeConnect)
NEVER_CALLED(SQLFreeEnv)
NEVER_CALLED(SQLGetConnectOption)
NEVER_CALLED(SQLGetCursorName)
NEVER_CALLED(SQLGetData)
NEVER_CALLED(SQLGetDiagField)
NEVER_CALLED(SQLGetEnvAttr)
NEVER_CALLED(SQLGetFunctions)
NEVER_CALLED(SQLGetInfo)
NEVER_CALLED(SQLGetStmtAttr)
NEVER_CALLED(SQLGetStmtOption)
NEVER_CALLED(SQLGetTypeInfo)
NEVER_CALLED(SQLNumResultCols)
NEVER_CALLED(SQLParamData)
NEVER_CALLED(SQLPrepare)
NEVER_CALLED(SQLPutData)
NEVER_CALLED(SQLRowCount)
NEVER_CALLED(SQLSetConnectOption)
NEVER_CALLED(SQLSetCursorName)
NEVER_CALLED(SQLSetStmtAttr)
NEVER_CALLED(SQLSetStmtOption)
NEVER_CALLED(SQLSpecialColumns)
NEVER_CALLED(SQLStatistics)
NEVER_CALLED(SQLTables)
NEVER_CALLED(SQLTransact)
