#include "db/base_class/DBLibrary.h"

#include <dlfcn.h>

#include <array>
#include <type_traits>
#include <utility>

#include "db/base_class/DBTracer.h"

namespace {

struct EntryPoint {
    const char* name;
    /// Fills the pointer if it is null; false if the library does not have the entry point.
    bool (*resolve)(DBLibrary& table, void* library, const char* name);
};

template <auto Pointer>
bool resolve(DBLibrary& table, void* library, const char* name) {
    auto& pointer = table.*Pointer;
    if (pointer == nullptr)
        pointer =
            reinterpret_cast<std::remove_reference_t<decltype(pointer)>>(::dlsym(library, name));
    return pointer != nullptr;
}

template <auto Pointer>
constexpr EntryPoint entry_point(const char* name) {
    return {name, &resolve<Pointer>};
}

/// What a driver manager must have, in the order in which it is looked up.
constexpr std::array entry_points{
    entry_point<&DBLibrary::SQLAllocConnect>("SQLAllocConnect"),
    entry_point<&DBLibrary::SQLAllocEnv>("SQLAllocEnv"),
    entry_point<&DBLibrary::SQLAllocHandle>("SQLAllocHandle"),
    entry_point<&DBLibrary::SQLAllocStmt>("SQLAllocStmt"),
    entry_point<&DBLibrary::SQLBindCol>("SQLBindCol"),
    entry_point<&DBLibrary::SQLBindParameter>("SQLBindParameter"),
    entry_point<&DBLibrary::SQLCancel>("SQLCancel"),
    entry_point<&DBLibrary::SQLCloseCursor>("SQLCloseCursor"),
    entry_point<&DBLibrary::SQLColAttribute>("SQLColAttribute"),
    entry_point<&DBLibrary::SQLColumns>("SQLColumns"),
    entry_point<&DBLibrary::SQLConnect>("SQLConnect"),
    entry_point<&DBLibrary::SQLDescribeCol>("SQLDescribeCol"),
    entry_point<&DBLibrary::SQLDisconnect>("SQLDisconnect"),
    entry_point<&DBLibrary::SQLEndTran>("SQLEndTran"),
    entry_point<&DBLibrary::SQLError>("SQLError"),
    entry_point<&DBLibrary::SQLExecDirect>("SQLExecDirect"),
    entry_point<&DBLibrary::SQLExecute>("SQLExecute"),
    entry_point<&DBLibrary::SQLFetch>("SQLFetch"),
    entry_point<&DBLibrary::SQLFetchScroll>("SQLFetchScroll"),
    entry_point<&DBLibrary::SQLFreeConnect>("SQLFreeConnect"),
    entry_point<&DBLibrary::SQLFreeEnv>("SQLFreeEnv"),
    entry_point<&DBLibrary::SQLFreeHandle>("SQLFreeHandle"),
    entry_point<&DBLibrary::SQLFreeStmt>("SQLFreeStmt"),
    entry_point<&DBLibrary::SQLGetConnectAttr>("SQLGetConnectAttr"),
    entry_point<&DBLibrary::SQLGetConnectOption>("SQLGetConnectOption"),
    entry_point<&DBLibrary::SQLGetCursorName>("SQLGetCursorName"),
    entry_point<&DBLibrary::SQLGetData>("SQLGetData"),
    entry_point<&DBLibrary::SQLGetDiagField>("SQLGetDiagField"),
    entry_point<&DBLibrary::SQLGetDiagRec>("SQLGetDiagRec"),
    entry_point<&DBLibrary::SQLGetEnvAttr>("SQLGetEnvAttr"),
    entry_point<&DBLibrary::SQLGetFunctions>("SQLGetFunctions"),
    entry_point<&DBLibrary::SQLGetInfo>("SQLGetInfo"),
    entry_point<&DBLibrary::SQLGetStmtAttr>("SQLGetStmtAttr"),
    entry_point<&DBLibrary::SQLGetStmtOption>("SQLGetStmtOption"),
    entry_point<&DBLibrary::SQLGetTypeInfo>("SQLGetTypeInfo"),
    entry_point<&DBLibrary::SQLNumResultCols>("SQLNumResultCols"),
    entry_point<&DBLibrary::SQLParamData>("SQLParamData"),
    entry_point<&DBLibrary::SQLPrepare>("SQLPrepare"),
    entry_point<&DBLibrary::SQLPutData>("SQLPutData"),
    entry_point<&DBLibrary::SQLRowCount>("SQLRowCount"),
    entry_point<&DBLibrary::SQLSetConnectAttr>("SQLSetConnectAttr"),
    entry_point<&DBLibrary::SQLSetConnectOption>("SQLSetConnectOption"),
    entry_point<&DBLibrary::SQLSetCursorName>("SQLSetCursorName"),
    entry_point<&DBLibrary::SQLSetEnvAttr>("SQLSetEnvAttr"),
    entry_point<&DBLibrary::SQLSetStmtAttr>("SQLSetStmtAttr"),
    entry_point<&DBLibrary::SQLSetStmtOption>("SQLSetStmtOption"),
    entry_point<&DBLibrary::SQLSpecialColumns>("SQLSpecialColumns"),
    entry_point<&DBLibrary::SQLStatistics>("SQLStatistics"),
    entry_point<&DBLibrary::SQLTables>("SQLTables"),
    entry_point<&DBLibrary::SQLTransact>("SQLTransact"),
};

}  // namespace

std::atomic<DBLibrary*> DBLibrary::_instance{nullptr};
eas::Mutex DBLibrary::_mutex;

DBLibrary::~DBLibrary() {
    if (_handle != nullptr)
        ::dlclose(std::exchange(_handle, nullptr));
}

DBLibrary* DBLibrary::get() {
    DBLibrary* table = _instance;
    if (table != nullptr)
        return table;
    const eas::MutexLock lock(_mutex);
    if (_instance == nullptr)
        _instance = std::make_unique<DBLibrary>().release();
    return _instance;
}

bool DBLibrary::init(const char* libname) {
    auto fresh = std::make_unique<DBLibrary>();
    DBLibrary* table = fresh.get();
    {
        const eas::MutexLock lock(_mutex);
        fresh->_earlier.reset(_instance);
        _instance = fresh.release();
    }
    return table->loadLibrary(libname);
}

void DBLibrary::release() {
    const eas::MutexLock lock(_mutex);
    std::unique_ptr<DBLibrary> table(_instance.exchange(nullptr));
    while (table != nullptr)
        table = std::move(table->_earlier);
}

bool DBLibrary::loadLibrary(const char* libname) {
    if (_handle != nullptr)
        return true;
    _handle = ::dlopen(libname, RTLD_NOW | RTLD_GLOBAL);
    if (_handle == nullptr) {
        ::dlerror();  // taken, so that nobody later mistakes it for his own
        return false;
    }
    for (const EntryPoint& entry : entry_points) {
        if (entry.resolve(*this, _handle, entry.name))
            continue;
        const char* error = ::dlerror();
        eas::trace(eas::severity_error, "Failed to load the function: %s.  Error: %s\n", entry.name,
                   error != nullptr ? error : "");
        // What was resolved so far stays in the table, pointing into the closed library.
        ::dlclose(std::exchange(_handle, nullptr));
        break;
    }
    return _handle != nullptr;
}
