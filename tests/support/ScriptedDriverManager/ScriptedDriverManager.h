// A driver manager whose answers a test decides: a shared object with every entry point that the
// library resolves. Left alone it behaves like a real one with a patient database: it makes and
// frees handles, refuses what a real one refuses (a free of a connected handle or of a parent, a
// handle that it did not make), keeps autocommit and knows whether a transaction is open.
//
// A scripted answer below 0, or one that asks for a retry, has no other effect: nothing is made,
// freed or connected. 0 and 1 take effect.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace eas::test {

struct Diagnostic {
    std::string state;
    SQLINTEGER native;
    std::string message;
};

class ScriptedDriverManager {
  public:
    /// The one that `path` holds; stays loaded for the rest of the process. Null after a failure.
    static ScriptedDriverManager* load(const char* path);

    /// The next answers of an entry point, in order; behind them it behaves by itself again.
    virtual void answer(const std::string& entry_point, std::initializer_list<SQLRETURN> codes) = 0;
    /// Every answer of an entry point, after those in the queue.
    virtual void always(const std::string& entry_point, SQLRETURN code) = 0;
    /// Runs at the start of each call of an entry point, on the calling thread.
    virtual void during(const std::string& entry_point, std::function<void()> action) = 0;
    /// What SQLGetDiagRec hands out, record by record, for whatever handle.
    virtual void diagnostics(std::vector<Diagnostic> records) = 0;
    /// Refuses to disconnect while a transaction is open, as SQLite's driver does.
    virtual void refuse_disconnect_in_transaction() = 0;

    /// The calls so far, "name(arguments worth a look)", and how many there were of one name.
    [[nodiscard]] virtual std::vector<std::string> calls() const = 0;
    [[nodiscard]] virtual int count(const std::string& entry_point) const = 0;
    /// Whether every scripted answer was given: a fault test asserts that its faults were met.
    [[nodiscard]] virtual bool script_done() const = 0;
    /// Handles that were made and not freed, of one type or of all (0).
    [[nodiscard]] virtual int live(SQLSMALLINT type = 0) const = 0;
    /// Connections that were opened and not disconnected.
    [[nodiscard]] virtual int connected() const = 0;

  protected:
    ~ScriptedDriverManager() = default;
};

}  // namespace eas::test
