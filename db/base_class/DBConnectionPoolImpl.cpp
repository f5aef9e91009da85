#include "db/base_class/DBConnectionPoolImpl.h"

#include <sql.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "base/CancelState.h"
#include "base/Numbers.h"
#include "db/base_class/DBTracer.h"
#include "db/base_class/Properties.h"

using eas::MutexLock;
using eas::severity_debug;
using eas::trace;

namespace {

constexpr int most_from_environment = 30;

std::optional<std::string> copy_of(const char* text) {
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

const char* text_of(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

/// A negative number of connections to begin with means none.
std::uint32_t min_count(int number) {
    return static_cast<std::uint32_t>(std::max(number, 0));
}

int min_connections(const std::string& from_file) {
    const char* from_environment = std::getenv("MIN_POOL_CONNECTIONS");
    const int number = from_environment != nullptr ? eas::to_int(from_environment) : 0;
    const bool counts = number >= 1 && number <= most_from_environment;
    return counts ? number : eas::to_int(from_file.c_str());
}

/// Gives a connection back to the pool, unless it is handed out.
class CheckedOut {
  public:
    CheckedOut(DBConnectionPoolImpl& pool, DBConnection* con) noexcept : pool_(pool), con_(con) {}
    ~CheckedOut() {
        if (con_ != nullptr)
            pool_.checkin(con_);
    }
    CheckedOut(const CheckedOut&) = delete;
    CheckedOut& operator=(const CheckedOut&) = delete;
    DBConnection* hand_out() noexcept { return std::exchange(con_, nullptr); }

  private:
    DBConnectionPoolImpl& pool_;
    DBConnection* con_;
};

}  // namespace

eas::Mutex DBConnectionPoolImpl::_connectionPool_mutex;

DBConnectionPoolImpl::DBConnectionPoolImpl(const char* propertiesFile) {
    Properties properties(propertiesFile);
    _database = properties["database_name"];
    _user = properties["database_user"];
    _pwd = properties["database_password"];
    _schema = properties["database_schema_name"];
    _minConnections = min_count(min_connections(properties["min_pool_connections"]));
    _maxConnections =
        static_cast<std::uint32_t>(eas::to_int(properties["max_pool_connections"].c_str()));
    _trace_level = eas::to_int(properties["pool_trace_level"].c_str());
    initPool();
}

DBConnectionPoolImpl::DBConnectionPoolImpl(const char* db, const char* user, const char* pwd,
                                           const char* schema, int min, int max, seteuid_fcn set,
                                           unseteuid_fcn unset)
    : _database(copy_of(db)),
      _user(copy_of(user)),
      _pwd(copy_of(pwd)),
      _schema(copy_of(schema)),
      _minConnections(min_count(min)),
      _maxConnections(static_cast<std::uint32_t>(max)),
      db_seteuid(set),
      db_unseteuid(unset) {
    initPool();
}

DBConnectionPoolImpl::~DBConnectionPoolImpl() {
    const auto count = [](const Connections& list) { return static_cast<int>(list.size()); };
    trace(severity_debug,
          "Deleting the connection pool, available connections: %d, used connections: %d\n",
          count(_availableConnections), count(_usedConnections));
    while (!_availableConnections.empty())
        _availableConnections.pop_back();
    while (!_usedConnections.empty())
        _usedConnections.pop_back();
    trace(severity_debug,
          "Connection pool deleted, available connections: %d, used connections: %d\n",
          count(_availableConnections), count(_usedConnections));
}

void DBConnectionPoolImpl::initPool() {
    DBConnection::setDBinfo(text_of(_database), text_of(_user), text_of(_pwd), text_of(_schema));
    trace(severity_debug,
          "Initializing connection pool with %d connections (max connections: %d)\n",
          static_cast<int>(_minConnections), static_cast<int>(_maxConnections));
    {
        const eas::UserSwitch user(db_seteuid, db_unseteuid, text_of(_user), text_of(_schema));
        for (std::uint32_t i = 0; i < _minConnections; ++i) {
            DB_Ptr con = openConnection(true);
            if (con != nullptr)
                _availableConnections.push_back(std::move(con));
        }
    }
    trace(severity_debug,
          "Connection pool initialized, available connections in the pool: %d "
          "(max connections: %d)\n",
          static_cast<int>(_availableConnections.size()), static_cast<int>(_maxConnections));
}

/// A connected connection, or null.
DB_Ptr DBConnectionPoolImpl::openConnection(bool pooled) const {
    DB_Ptr con(std::make_unique<DBConnection>(nullptr, pooled, _trace_level).release());
    const int rc = con->connect(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (!SQL_SUCCEEDED(rc))
        con.reset();
    return con;
}

DBConnection* DBConnectionPoolImpl::checkout() {
    eas::CancelState uncancelled(PTHREAD_CANCEL_DISABLE);
    if (uncancelled.error() != 0)
        trace(severity_debug, "Error disabling thread cancel: %s\n", std::strerror(errno));
    traceCounts("Obtaining a database connection...");
    DBConnection* con = takeAvailable();
    if (con == nullptr)
        con = expand();
    if (con == nullptr)
        return nullptr;
    CheckedOut checked_out(*this, con);
    traceCounts("Successfully obtained a database connection");
    if (uncancelled.restore() != 0)
        trace(severity_debug, "Error restoring thread cancel: %s\n", std::strerror(errno));
    pthread_testcancel();
    return checked_out.hand_out();
}

/// Moves the last available connection to the used ones; null if there is none.
DBConnection* DBConnectionPoolImpl::takeAvailable() {
    const MutexLock lock(_connectionPool_mutex);
    if (_availableConnections.empty())
        return nullptr;
    _usedConnections.push_back(std::move(_availableConnections.back()));
    _availableConnections.pop_back();
    return _usedConnections.back().get();
}

/// Opens a temporary connection; null if it cannot be opened. The user is switched back either way.
DBConnection* DBConnectionPoolImpl::expand() {
    trace(severity_debug, "Out of connections, expanding the connection pool\n");
    DB_Ptr con;
    {
        const eas::UserSwitch user(db_seteuid, db_unseteuid, text_of(_user), text_of(_schema));
        con = openConnection(false);
    }
    if (con == nullptr)
        return nullptr;
    const MutexLock lock(_connectionPool_mutex);
    _usedConnections.push_back(std::move(con));
    return _usedConnections.back().get();
}

void DBConnectionPoolImpl::checkin(DBConnection* con) {
    traceCounts("Releasing a database connection...");
    if (con != nullptr) {
        const DB_Ptr temporary = takeUsed(con);
        if (temporary != nullptr)
            trace(severity_debug, "Deleting the temporary DB connection\n");
    }
    traceCounts("Successfully released a database connection");
}

/// Takes a connection off the used ones. A pooled one becomes available; a temporary one is
/// returned, so that it is disconnected without the lock. Null also if the connection is not in
/// use.
DB_Ptr DBConnectionPoolImpl::takeUsed(const DBConnection* con) {
    const MutexLock lock(_connectionPool_mutex);
    const auto found = std::find_if(_usedConnections.begin(), _usedConnections.end(),
                                    [con](const DB_Ptr& used) { return used.get() == con; });
    if (found == _usedConnections.end())
        return nullptr;
    if (!con->isPooled()) {
        DB_Ptr temporary = std::move(*found);
        _usedConnections.erase(found);
        return temporary;
    }
    _availableConnections.push_back(std::move(*found));
    _usedConnections.erase(found);
    return nullptr;
}

void DBConnectionPoolImpl::doCleanup() {
    const MutexLock lock(_connectionPool_mutex);
    while (_availableConnections.size() > _minConnections)
        _availableConnections.pop_back();
}

std::size_t DBConnectionPoolImpl::availableCount() const {
    const MutexLock lock(_connectionPool_mutex);
    return _availableConnections.size();
}

std::size_t DBConnectionPoolImpl::usedCount() const {
    const MutexLock lock(_connectionPool_mutex);
    return _usedConnections.size();
}

/// "what [available connections: %d, used connections: %d]"
void DBConnectionPoolImpl::traceCounts(const char* what) const {
    if (dbtrace_config(-2) == 0)
        return;
    int available = 0;
    int used = 0;
    {
        const MutexLock lock(_connectionPool_mutex);
        available = static_cast<int>(_availableConnections.size());
        used = static_cast<int>(_usedConnections.size());
    }
    trace(severity_debug, "%s [available connections: %d, used connections: %d]\n", what, available,
          used);
}
