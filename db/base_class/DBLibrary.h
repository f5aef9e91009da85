// The ODBC driver manager, loaded at run time: a host without one can load this library and fails
// only when it first uses the database. All database code calls ODBC through DBLibrary::get().
//
// get() and release() may run in any thread; init() and loadLibrary() run before other threads use
// the database layer, release() after.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <atomic>
#include <memory>

#include "base/ThreadSafety.h"

/// One pointer per entry point, named as it. "Never resolved" ones stay null.
struct OdbcEntryPoints {
    decltype(&::SQLAllocConnect) SQLAllocConnect = nullptr;
    decltype(&::SQLAllocEnv) SQLAllocEnv = nullptr;
    decltype(&::SQLAllocHandle) SQLAllocHandle = nullptr;
    decltype(&::SQLAllocStmt) SQLAllocStmt = nullptr;
    decltype(&::SQLBindCol) SQLBindCol = nullptr;
    decltype(&::SQLBindParam) SQLBindParam = nullptr;  // never resolved
    decltype(&::SQLBindParameter) SQLBindParameter = nullptr;
    decltype(&::SQLCancel) SQLCancel = nullptr;
    decltype(&::SQLCloseCursor) SQLCloseCursor = nullptr;
    decltype(&::SQLColAttribute) SQLColAttribute = nullptr;
    decltype(&::SQLColumns) SQLColumns = nullptr;
    decltype(&::SQLConnect) SQLConnect = nullptr;
    decltype(&::SQLCopyDesc) SQLCopyDesc = nullptr;        // never resolved
    decltype(&::SQLDataSources) SQLDataSources = nullptr;  // never resolved
    decltype(&::SQLDescribeCol) SQLDescribeCol = nullptr;
    decltype(&::SQLDisconnect) SQLDisconnect = nullptr;
    decltype(&::SQLEndTran) SQLEndTran = nullptr;
    decltype(&::SQLError) SQLError = nullptr;
    decltype(&::SQLExecDirect) SQLExecDirect = nullptr;
    decltype(&::SQLExecute) SQLExecute = nullptr;
    decltype(&::SQLFetch) SQLFetch = nullptr;
    decltype(&::SQLFetchScroll) SQLFetchScroll = nullptr;
    decltype(&::SQLFreeConnect) SQLFreeConnect = nullptr;
    decltype(&::SQLFreeEnv) SQLFreeEnv = nullptr;
    decltype(&::SQLFreeHandle) SQLFreeHandle = nullptr;
    decltype(&::SQLFreeStmt) SQLFreeStmt = nullptr;
    decltype(&::SQLGetConnectAttr) SQLGetConnectAttr = nullptr;
    decltype(&::SQLGetConnectOption) SQLGetConnectOption = nullptr;
    decltype(&::SQLGetCursorName) SQLGetCursorName = nullptr;
    decltype(&::SQLGetData) SQLGetData = nullptr;
    decltype(&::SQLGetDescField) SQLGetDescField = nullptr;  // never resolved
    decltype(&::SQLGetDescRec) SQLGetDescRec = nullptr;      // never resolved
    decltype(&::SQLGetDiagField) SQLGetDiagField = nullptr;
    decltype(&::SQLGetDiagRec) SQLGetDiagRec = nullptr;
    decltype(&::SQLGetEnvAttr) SQLGetEnvAttr = nullptr;
    decltype(&::SQLGetFunctions) SQLGetFunctions = nullptr;
    decltype(&::SQLGetInfo) SQLGetInfo = nullptr;
    decltype(&::SQLGetStmtAttr) SQLGetStmtAttr = nullptr;
    decltype(&::SQLGetStmtOption) SQLGetStmtOption = nullptr;
    decltype(&::SQLGetTypeInfo) SQLGetTypeInfo = nullptr;
    decltype(&::SQLNumResultCols) SQLNumResultCols = nullptr;
    decltype(&::SQLParamData) SQLParamData = nullptr;
    decltype(&::SQLPrepare) SQLPrepare = nullptr;
    decltype(&::SQLPutData) SQLPutData = nullptr;
    decltype(&::SQLRowCount) SQLRowCount = nullptr;
    decltype(&::SQLSetConnectAttr) SQLSetConnectAttr = nullptr;
    decltype(&::SQLSetConnectOption) SQLSetConnectOption = nullptr;
    decltype(&::SQLSetCursorName) SQLSetCursorName = nullptr;
    decltype(&::SQLSetDescField) SQLSetDescField = nullptr;  // never resolved
    decltype(&::SQLSetDescRec) SQLSetDescRec = nullptr;      // never resolved
    decltype(&::SQLSetEnvAttr) SQLSetEnvAttr = nullptr;
    decltype(&::SQLSetParam) SQLSetParam = nullptr;  // never resolved
    decltype(&::SQLSetStmtAttr) SQLSetStmtAttr = nullptr;
    decltype(&::SQLSetStmtOption) SQLSetStmtOption = nullptr;
    decltype(&::SQLSpecialColumns) SQLSpecialColumns = nullptr;
    decltype(&::SQLStatistics) SQLStatistics = nullptr;
    decltype(&::SQLTables) SQLTables = nullptr;
    decltype(&::SQLTransact) SQLTransact = nullptr;
};

class DBLibrary : public OdbcEntryPoints {
  public:
    DBLibrary() noexcept = default;
    /// Closes the driver manager: pointers taken from this table are void from here on.
    ~DBLibrary();
    DBLibrary(const DBLibrary&) = delete;
    DBLibrary& operator=(const DBLibrary&) = delete;

    /// The current table, created with every pointer null if there is none. Never loads anything.
    static DBLibrary* get();

    /// Makes a fresh table the current one and loads `libname` into it; see loadLibrary(). An
    /// earlier table stays valid for those who still hold it, until release().
    static bool init(const char* libname);

    /// Destroys the current table and the earlier ones, closing what they loaded.
    static void release();

    /// Opens `libname` and fills the pointers that are null. Returns whether the library is open
    /// and every entry point was found; if not, the library is closed and what was filled is void.
    bool loadLibrary(const char* libname);

    /// Whether a driver manager is loaded.
    [[nodiscard]] bool ready() const noexcept { return _handle != nullptr; }

  private:
    static std::atomic<DBLibrary*> _instance;
    static eas::Mutex _mutex;

    void* _handle = nullptr;
    std::unique_ptr<DBLibrary> _earlier;
};
