#include "tests/support/ScriptedDriverManager/Manager.h"

#include <algorithm>

namespace eas::test {

using Lock = std::lock_guard<std::recursive_mutex>;

Manager& Manager::instance() {
    static Manager manager;
    return manager;
}

void Manager::answer(const std::string& entry_point, std::initializer_list<SQLRETURN> codes) {
    const Lock lock(mutex_);
    auto& queue = scripts_[entry_point].queue;
    queue.insert(queue.end(), codes);
}

void Manager::always(const std::string& entry_point, SQLRETURN code) {
    const Lock lock(mutex_);
    scripts_[entry_point].always = code;
}

void Manager::during(const std::string& entry_point, std::function<void()> action) {
    const Lock lock(mutex_);
    scripts_[entry_point].during = std::move(action);
}

void Manager::diagnostics(std::vector<Diagnostic> records) {
    const Lock lock(mutex_);
    diagnostics_ = std::move(records);
}

void Manager::refuse_disconnect_in_transaction() {
    const Lock lock(mutex_);
    refuse_in_transaction_ = true;
}

std::vector<std::string> Manager::calls() const {
    const Lock lock(mutex_);
    return calls_;
}

int Manager::count(const std::string& entry_point) const {
    const Lock lock(mutex_);
    const auto found = scripts_.find(entry_point);
    return found != scripts_.end() ? found->second.count : 0;
}

bool Manager::script_done() const {
    const Lock lock(mutex_);
    return std::all_of(scripts_.begin(), scripts_.end(),
                       [](const auto& script) { return script.second.queue.empty(); });
}

int Manager::live(SQLSMALLINT type) const {
    const Lock lock(mutex_);
    return static_cast<int>(std::count_if(
        handles_.begin(), handles_.end(),
        [type](const auto& entry) { return type == 0 || entry.second.type == type; }));
}

int Manager::connected() const {
    const Lock lock(mutex_);
    return static_cast<int>(std::count_if(handles_.begin(), handles_.end(), [](const auto& entry) {
        return entry.second.connected;
    }));
}

std::optional<SQLRETURN> Manager::next_answer(const char* entry_point,
                                              const std::string& arguments) {
    std::function<void()> during;
    {
        const Lock lock(mutex_);
        calls_.push_back(std::string(entry_point) + '(' + arguments + ')');
        Script& script = scripts_[entry_point];
        ++script.count;
        during = script.during;
    }
    if (during)
        during();
    const Lock lock(mutex_);
    Script& script = scripts_[entry_point];
    if (script.queue.empty())
        return script.always;
    const SQLRETURN code = script.queue.front();
    script.queue.pop_front();
    return code;
}

SQLRETURN Manager::call(const char* entry_point, const std::string& arguments,
                        const std::function<SQLRETURN()>& effect) {
    const std::optional<SQLRETURN> scripted = next_answer(entry_point, arguments);
    if (scripted && !SQL_SUCCEEDED(*scripted))
        return *scripted;
    const Lock lock(mutex_);
    const SQLRETURN rc = effect();
    return scripted.value_or(rc);
}

SQLRETURN Manager::make(SQLSMALLINT type, SQLHANDLE parent, SQLHANDLE* out) {
    *out = SQL_NULL_HANDLE;
    if (type != SQL_HANDLE_ENV && handles_.count(parent) == 0)
        return SQL_INVALID_HANDLE;
    *out = reinterpret_cast<SQLHANDLE>(++last_handle_);
    Handle& made = handles_[*out];
    made.type = type;
    made.parent = parent;
    return SQL_SUCCESS;
}

SQLRETURN Manager::free(SQLSMALLINT type, SQLHANDLE handle) {
    const Handle* found = find(type, handle);
    if (found == nullptr)
        return SQL_INVALID_HANDLE;
    const bool is_parent = std::any_of(handles_.begin(), handles_.end(), [handle](const auto& h) {
        return h.second.parent == handle;
    });
    if (found->connected || is_parent)
        return SQL_ERROR;
    handles_.erase(handle);
    return SQL_SUCCESS;
}

SQLRETURN Manager::disconnect(SQLHANDLE handle) {
    Handle* con = find(SQL_HANDLE_DBC, handle);
    if (con == nullptr)
        return SQL_INVALID_HANDLE;
    if (!con->connected || (con->in_transaction && refuse_in_transaction_))
        return SQL_ERROR;
    con->connected = con->in_transaction = false;
    for (auto it = handles_.begin(); it != handles_.end();)
        it = it->second.parent == handle ? handles_.erase(it) : std::next(it);
    return SQL_SUCCESS;
}

Manager::Handle* Manager::find(SQLSMALLINT type, SQLHANDLE handle) {
    const auto found = handles_.find(handle);
    return found != handles_.end() && found->second.type == type ? &found->second : nullptr;
}

const Diagnostic* Manager::diagnostic(SQLSMALLINT number) const {
    const auto index = static_cast<std::size_t>(number) - 1;
    return index < diagnostics_.size() ? &diagnostics_[index] : nullptr;
}

}  // namespace eas::test

extern "C" __attribute__((visibility("default"))) eas::test::ScriptedDriverManager*
scripted_driver_manager() {
    return &eas::test::Manager::instance();
}
