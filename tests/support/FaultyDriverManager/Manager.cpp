#include "tests/support/FaultyDriverManager/Manager.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace eas::test {

FaultyManager& FaultyManager::instance() {
    static FaultyManager manager;
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

void FaultyManager::inject(const Fault& fault) {
    const std::lock_guard<std::mutex> lock(mutex_);
    fault_ = fault;
    met_ = 0;
    hit_ = false;
}

bool FaultyManager::end_fault() {
    const std::lock_guard<std::mutex> lock(mutex_);
    met_ = -1;
    return hit_;
}

std::vector<FaultyDriverManager::Calls> FaultyManager::calls() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Calls> all;
    for (const auto& [name, count] : calls_)
        all.push_back({name, count});
    calls_.clear();
    return all;
}

const Fault* FaultyManager::meet(const char* entry_point) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++calls_[entry_point];
    if (met_ < 0 || fault_.entry_point != entry_point)
        return nullptr;
    ++met_;
    if (met_ != fault_.call && !(fault_.for_good && met_ > fault_.call))
        return nullptr;
    hit_ = true;
    return &fault_;
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

int FaultyManager::free_left_overs() {
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
    return static_cast<int>(left.size());
}

}  // namespace eas::test

extern "C" __attribute__((visibility("default"))) eas::test::FaultyDriverManager*
faulty_driver_manager();
extern "C" eas::test::FaultyDriverManager* faulty_driver_manager() {
    return &eas::test::FaultyManager::instance();
}
