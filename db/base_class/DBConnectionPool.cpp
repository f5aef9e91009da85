#include "db/base_class/DBConnectionPool.h"

#include <utility>

#include "base/FatalAssertion.h"
#include "db/base_class/DBConnectionPoolImpl.h"
#include "db/base_class/DBTracer.h"

std::atomic<DBConnectionPool*> DBConnectionPool::_instance{nullptr};
std::atomic<bool> DBConnectionPool::_initialized{false};

DBConnectionPool::DBConnectionPool(std::unique_ptr<DBConnectionPoolImpl> impl) noexcept
    : _impl(std::move(impl)) {}

DBConnectionPool::~DBConnectionPool() = default;

template <typename... Arguments>
void DBConnectionPool::create(Arguments... arguments) {
    const eas::MutexLock lock(DBConnectionPoolImpl::_connectionPool_mutex);
    if (_initialized) {
        eas::trace(eas::severity_debug, "DBConnectionPool already initialized\n");
        return;
    }
    eas::require_or_abort(_instance == nullptr, "_instance == 0");
    auto impl = std::make_unique<DBConnectionPoolImpl>(arguments...);
    _instance = std::make_unique<DBConnectionPool>(std::move(impl)).release();
    _initialized = true;
}

void DBConnectionPool::init(const char* propertiesFile) {
    create(propertiesFile);
}

void DBConnectionPool::init(const char* db, const char* user, const char* pwd, const char* schema,
                            int min, int max, seteuid_fcn set, unseteuid_fcn unset) {
    create(db, user, pwd, schema, min, max, set, unset);
}

void DBConnectionPool::terminate() {
    std::unique_ptr<DBConnectionPool> pool;
    {
        const eas::MutexLock lock(DBConnectionPoolImpl::_connectionPool_mutex);
        pool.reset(_instance.exchange(nullptr));
        _initialized = false;
    }
}

DBConnection* DBConnectionPool::checkout() {
    return _impl->checkout();
}

void DBConnectionPool::checkin(DBConnection* con) {
    _impl->checkin(con);
}

void DBConnectionPool::doCleanup() {
    _impl->doCleanup();
}

std::size_t DBConnectionPool::availableCount() const {
    return _impl->availableCount();
}

std::size_t DBConnectionPool::usedCount() const {
    return _impl->usedCount();
}

unsigned DBConnectionPool::maxCount() const noexcept {
    return _impl->maxCount();
}

unsigned DBConnectionPool::minCount() const noexcept {
    return _impl->minCount();
}

int DBConnectionPool::trcLevel() const noexcept {
    return _impl->trcLevel();
}

void DBConnectionPool::setTraceLevel(int level) noexcept {
    _impl->setTraceLevel(level);
}
