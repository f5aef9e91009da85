#include "tests/support/FaultyDriverManager/Manager.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace eas::test {

FaultyManager& FaultyManager::instance() {
    // Never destroyed: threads may be inside it while the process exits.
    static FaultyManager& manager = *new FaultyManager;
    return manager;
}

FaultyManager::FaultyManager() : library_(::dlopen("libodbc.so.2", RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) {
        std::fprintf(stderr, "no libodbc.so.2 to forward to: %s\n", ::dlerror());
        std::abort();
    }
}

void* FaultyManager::real(const char* entry_point) {
    return ::dlsym(library_, entry_point);
}

void FaultyManager::inject(const std::vector<Fault>& faults) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lists_calls_ = true;
    calls_.clear();
    counts_.clear();
    faults_.clear();
    for (const Fault& fault : faults)
        faults_.push_back({fault});
}

bool FaultyManager::end_faults() {
    const std::lock_guard<std::mutex> lock(mutex_);
    lists_calls_ = false;
    const auto ended = std::exchange(faults_, {});
    return std::all_of(ended.begin(), ended.end(), [](const Injected& injected) {
        return injected.calls >= injected.fault.call;
    });
}

std::vector<FaultyDriverManager::Call> FaultyManager::calls() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

const Fault* FaultyManager::meet(const char* entry_point, const std::string& said) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!lists_calls_)
        return nullptr;
    calls_.push_back({entry_point, ++counts_[entry_point], said});
    const Fault* met = nullptr;
    for (Injected& injected : faults_) {
        const Fault& fault = injected.fault;
        if (fault.entry_point != entry_point)
            continue;
        ++injected.calls;
        if (injected.calls == fault.call || (fault.for_good && injected.calls > fault.call))
            met = &fault;
    }
    return met;
}

void FaultyManager::made(SQLHANDLE handle, SQLSMALLINT type, SQLHANDLE parent) {
    const std::lock_guard<std::mutex> lock(mutex_);
    handles_[handle] = {type, parent};
}

void FaultyManager::freed(SQLHANDLE handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    handles_.erase(handle);
}

void FaultyManager::disconnected(SQLHANDLE connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = handles_.begin(); it != handles_.end();) {
        const bool of_it = it->second.type == SQL_HANDLE_STMT && it->second.parent == connection;
        it = of_it ? handles_.erase(it) : std::next(it);
    }
}

int FaultyManager::live_handles() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(handles_.size());
}

void FaultyManager::free_left_overs() {
    const auto left = handles_;
    for (const auto type : {SQL_HANDLE_STMT, SQL_HANDLE_DBC, SQL_HANDLE_ENV}) {
        for (const auto& [handle, what] : left) {
            if (what.type != type)
                continue;
            if (type == SQL_HANDLE_DBC) {
                SQLEndTran(SQL_HANDLE_DBC, handle, SQL_ROLLBACK);
                SQLDisconnect(handle);
            }
            SQLFreeHandle(what.type, handle);
        }
    }
}

}  // namespace eas::test

extern "C" __attribute__((visibility("default"))) eas::test::FaultyDriverManager*
faulty_driver_manager();
extern "C" eas::test::FaultyDriverManager* faulty_driver_manager() {
    return &eas::test::FaultyManager::instance();
}
