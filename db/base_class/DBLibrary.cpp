#include "db/base_class/DBLibrary.h"

#include <dlfcn.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "db/base_class/DBTracer.h"

namespace {

/// It holds no pointer, so that the list needs no relocation at load time.
struct EntryPoint {
    char name[20];
    std::uint16_t offset;  ///< of its pointer
};

template <std::size_t length>
constexpr EntryPoint entry_point(const char (&name)[length], std::size_t offset) {
    static_assert(length <= sizeof(EntryPoint::name));
    EntryPoint made{};
    for (std::size_t i = 0; i < length; ++i)
        made.name[i] = name[i];
    made.offset = static_cast<std::uint16_t>(offset);
    return made;
}

static_assert(std::is_standard_layout_v<OdbcEntryPoints>);

/// Fills the pointer if it is null; false if the library does not have the entry point.
bool resolve(const EntryPoint& entry, void* library, OdbcEntryPoints& table) {
    char* const at = reinterpret_cast<char*>(&table) + entry.offset;
    void* pointer = nullptr;
    std::memcpy(&pointer, at, sizeof pointer);
    if (pointer == nullptr)
        pointer = ::dlsym(library, entry.name);
    std::memcpy(at, &pointer, sizeof pointer);
    return pointer != nullptr;
}

/// What a driver manager must have, in the order in which it is looked up. The type is spelt out:
/// g++ leaves a table whose type is deduced in writable memory.
constexpr std::array<EntryPoint, 50> entry_points{
    entry_point("SQLAllocConnect", offsetof(OdbcEntryPoints, SQLAllocConnect)),
    entry_point("SQLAllocEnv", offsetof(OdbcEntryPoints, SQLAllocEnv)),
    entry_point("SQLAllocHandle", offsetof(OdbcEntryPoints, SQLAllocHandle)),
    entry_point("SQLAllocStmt", offsetof(OdbcEntryPoints, SQLAllocStmt)),
    entry_point("SQLBindCol", offsetof(OdbcEntryPoints, SQLBindCol)),
    entry_point("SQLBindParameter", offsetof(OdbcEntryPoints, SQLBindParameter)),
    entry_point("SQLCancel", offsetof(OdbcEntryPoints, SQLCancel)),
    entry_point("SQLCloseCursor", offsetof(OdbcEntryPoints, SQLCloseCursor)),
    entry_point("SQLColAttribute", offsetof(OdbcEntryPoints, SQLColAttribute)),
    entry_point("SQLColumns", offsetof(OdbcEntryPoints, SQLColumns)),
    entry_point("SQLConnect", offsetof(OdbcEntryPoints, SQLConnect)),
    entry_point("SQLDescribeCol", offsetof(OdbcEntryPoints, SQLDescribeCol)),
    entry_point("SQLDisconnect", offsetof(OdbcEntryPoints, SQLDisconnect)),
    entry_point("SQLEndTran", offsetof(OdbcEntryPoints, SQLEndTran)),
    entry_point("SQLError", offsetof(OdbcEntryPoints, SQLError)),
    entry_point("SQLExecDirect", offsetof(OdbcEntryPoints, SQLExecDirect)),
    entry_point("SQLExecute", offsetof(OdbcEntryPoints, SQLExecute)),
    entry_point("SQLFetch", offsetof(OdbcEntryPoints, SQLFetch)),
    entry_point("SQLFetchScroll", offsetof(OdbcEntryPoints, SQLFetchScroll)),
    entry_point("SQLFreeConnect", offsetof(OdbcEntryPoints, SQLFreeConnect)),
    entry_point("SQLFreeEnv", offsetof(OdbcEntryPoints, SQLFreeEnv)),
    entry_point("SQLFreeHandle", offsetof(OdbcEntryPoints, SQLFreeHandle)),
    entry_point("SQLFreeStmt", offsetof(OdbcEntryPoints, SQLFreeStmt)),
    entry_point("SQLGetConnectAttr", offsetof(OdbcEntryPoints, SQLGetConnectAttr)),
    entry_point("SQLGetConnectOption", offsetof(OdbcEntryPoints, SQLGetConnectOption)),
    entry_point("SQLGetCursorName", offsetof(OdbcEntryPoints, SQLGetCursorName)),
    entry_point("SQLGetData", offsetof(OdbcEntryPoints, SQLGetData)),
    entry_point("SQLGetDiagField", offsetof(OdbcEntryPoints, SQLGetDiagField)),
    entry_point("SQLGetDiagRec", offsetof(OdbcEntryPoints, SQLGetDiagRec)),
    entry_point("SQLGetEnvAttr", offsetof(OdbcEntryPoints, SQLGetEnvAttr)),
    entry_point("SQLGetFunctions", offsetof(OdbcEntryPoints, SQLGetFunctions)),
    entry_point("SQLGetInfo", offsetof(OdbcEntryPoints, SQLGetInfo)),
    entry_point("SQLGetStmtAttr", offsetof(OdbcEntryPoints, SQLGetStmtAttr)),
    entry_point("SQLGetStmtOption", offsetof(OdbcEntryPoints, SQLGetStmtOption)),
    entry_point("SQLGetTypeInfo", offsetof(OdbcEntryPoints, SQLGetTypeInfo)),
    entry_point("SQLNumResultCols", offsetof(OdbcEntryPoints, SQLNumResultCols)),
    entry_point("SQLParamData", offsetof(OdbcEntryPoints, SQLParamData)),
    entry_point("SQLPrepare", offsetof(OdbcEntryPoints, SQLPrepare)),
    entry_point("SQLPutData", offsetof(OdbcEntryPoints, SQLPutData)),
    entry_point("SQLRowCount", offsetof(OdbcEntryPoints, SQLRowCount)),
    entry_point("SQLSetConnectAttr", offsetof(OdbcEntryPoints, SQLSetConnectAttr)),
    entry_point("SQLSetConnectOption", offsetof(OdbcEntryPoints, SQLSetConnectOption)),
    entry_point("SQLSetCursorName", offsetof(OdbcEntryPoints, SQLSetCursorName)),
    entry_point("SQLSetEnvAttr", offsetof(OdbcEntryPoints, SQLSetEnvAttr)),
    entry_point("SQLSetStmtAttr", offsetof(OdbcEntryPoints, SQLSetStmtAttr)),
    entry_point("SQLSetStmtOption", offsetof(OdbcEntryPoints, SQLSetStmtOption)),
    entry_point("SQLSpecialColumns", offsetof(OdbcEntryPoints, SQLSpecialColumns)),
    entry_point("SQLStatistics", offsetof(OdbcEntryPoints, SQLStatistics)),
    entry_point("SQLTables", offsetof(OdbcEntryPoints, SQLTables)),
    entry_point("SQLTransact", offsetof(OdbcEntryPoints, SQLTransact)),
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
        if (resolve(entry, _handle, *this))
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
