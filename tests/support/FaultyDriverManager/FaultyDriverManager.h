// A driver manager that forwards every call to the real one and lets a test fail any of them: a
// shared object under the name that the library opens at run time. It counts the calls of each
// entry point and the handles that the real one has made and not freed.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string>
#include <vector>

namespace eas::test {

/// What goes wrong: from the k-th call of an entry point on, its answer is another one.
struct Fault {
    std::string entry_point;
    int call = 1;  ///< k, from 1
    SQLRETURN code = SQL_ERROR;
    bool takes_effect = false;  ///< the real one is called and succeeds; only the answer is wrong
    bool for_good = false;      ///< every later call fails, too
};

class FaultyDriverManager {
  public:
    /// Loads it, before the library does; stays loaded for the rest of the process.
    static FaultyDriverManager& load();

    virtual void inject(const Fault& fault) = 0;
    /// Ends the fault; whether it was met.
    virtual bool end_fault() = 0;

    struct Calls {
        std::string entry_point;
        int count;
    };
    /// The entry points that were called since the last time this was asked.
    virtual std::vector<Calls> calls() = 0;

    /// Handles that are not freed.
    [[nodiscard]] virtual int live_handles() const = 0;
    /// Frees what a fault for good had made it impossible to free; how many handles.
    virtual int free_left_overs() = 0;

    /// Told +1 when a thread enters the driver manager and -1 when it leaves.
    virtual void on_crossing(void (*told)(int)) = 0;

  protected:
    ~FaultyDriverManager() = default;
};

}  // namespace eas::test
