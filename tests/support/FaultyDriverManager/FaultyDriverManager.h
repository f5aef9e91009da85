// A driver manager that forwards every call to the real one and lets a test fail any of them: a
// shared object under the name that the library opens at run time. It lists the calls and counts
// the handles that the real one has made and not freed.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string>
#include <vector>

namespace eas::test {

/// What goes wrong: the answer of an entry point's k-th call since the fault was injected.
struct Fault {
    std::string entry_point;
    int call = 1;  ///< k, from 1
    SQLRETURN code = SQL_ERROR;
    bool takes_effect = false;  ///< the real one is called; only its success is misreported
    bool for_good = false;      ///< every later call fails, too
};

class FaultyDriverManager {
  public:
    /// Loads it, before the library does; stays loaded for the rest of the process.
    static FaultyDriverManager& load();

    /// Begins the faults, if any, and a new list of calls.
    virtual void inject(const std::vector<Fault>& faults) = 0;
    /// Ends both; whether each fault was met.
    virtual bool end_faults() = 0;

    struct Call {
        std::string entry_point;
        int number;  ///< among the calls of this entry point, from 1
        /// Texts among the arguments; how a transaction ends; of a bind its numbers in their
        /// order, behind them what a column's indicator holds (-9: it has none), or whether a
        /// parameter has one.
        std::string said;
    };
    /// The list: every call, in order.
    virtual std::vector<Call> calls() = 0;
    /// What those of one entry point said.
    std::vector<std::string> said(const std::string& entry_point) {
        std::vector<std::string> texts;
        for (const Call& call : calls()) {
            if (call.entry_point == entry_point)
                texts.push_back(call.said);
        }
        return texts;
    }

    /// Handles that are not freed.
    [[nodiscard]] virtual int live_handles() const = 0;
    /// Frees what a fault for good had made it impossible to free.
    virtual void free_left_overs() = 0;

    /// Told +1 when a thread enters the driver manager and -1 when it leaves.
    virtual void on_crossing(void (*told)(int)) = 0;

  protected:
    ~FaultyDriverManager() = default;
};

}  // namespace eas::test
