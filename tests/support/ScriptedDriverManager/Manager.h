// The state behind the scripted entry points. Any thread may call.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

#include "tests/support/ScriptedDriverManager/ScriptedDriverManager.h"

namespace eas::test {

class Manager final : public ScriptedDriverManager {
  public:
    static Manager& instance();

    void answer(const std::string& entry_point, std::initializer_list<SQLRETURN> codes) override;
    void always(const std::string& entry_point, SQLRETURN code) override;
    void during(const std::string& entry_point, std::function<void()> action) override;
    void diagnostics(std::vector<Diagnostic> records) override;
    void refuse_disconnect_in_transaction() override;
    [[nodiscard]] std::vector<std::string> calls() const override;
    [[nodiscard]] int count(const std::string& entry_point) const override;
    [[nodiscard]] bool script_done() const override;
    [[nodiscard]] int live(SQLSMALLINT type) const override;
    [[nodiscard]] int connected() const override;

    /// A made handle: the entry points see its address only.
    struct Handle {
        SQLSMALLINT type = 0;
        SQLHANDLE parent = nullptr;
        bool connected = false;
        bool in_transaction = false;
        bool autocommit = true;
    };

    /// Logs a call, runs its action, and gives the scripted answer, or `effect`'s where there is
    /// none; a scripted 0 or 1 lets the effect happen and replaces its answer.
    SQLRETURN call(const char* entry_point, const std::string& arguments,
                   const std::function<SQLRETURN()>& effect);
    SQLRETURN make(SQLSMALLINT type, SQLHANDLE parent, SQLHANDLE* out);
    SQLRETURN free(SQLSMALLINT type, SQLHANDLE handle);
    SQLRETURN disconnect(SQLHANDLE handle);
    /// The handle if it is one of this type that lives, else null.
    Handle* find(SQLSMALLINT type, SQLHANDLE handle);
    /// Null behind the last record.
    const Diagnostic* diagnostic(SQLSMALLINT number) const;

  private:
    struct Script {
        std::deque<SQLRETURN> queue;
        std::optional<SQLRETURN> always;
        std::function<void()> during;
        int count = 0;
    };

    std::optional<SQLRETURN> next_answer(const char* entry_point, const std::string& arguments);

    mutable std::recursive_mutex mutex_;
    std::map<std::string, Script> scripts_;
    std::vector<Diagnostic> diagnostics_;
    std::vector<std::string> calls_;
    // Keyed by a number that is never given twice, so that a stale handle is always recognised.
    std::map<SQLHANDLE, Handle> handles_;
    std::uintptr_t last_handle_ = 0;
    bool refuse_in_transaction_ = false;
};

}  // namespace eas::test
