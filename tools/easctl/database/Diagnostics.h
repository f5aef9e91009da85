// What the driver said about a failure: the diagnostics records that the database layer writes into
// its trace log, caught in memory. One instance at a time.
#pragma once

#include <string>

#include "base/UniqueFd.h"

namespace easctl {

class Diagnostics {
  public:
    Diagnostics();
    ~Diagnostics();
    Diagnostics(const Diagnostics&) = delete;
    Diagnostics& operator=(const Diagnostics&) = delete;

    /// What was said since the last call, each record once, "; " between them; empty for none.
    [[nodiscard]] std::string take();

  private:
    eas::UniqueFd log_;
    off_t read_ = 0;
};

/// What an administrator can do about what a driver said; empty where there is no advice.
std::string advice_on(const std::string& said, const std::string& dsn);

}  // namespace easctl
