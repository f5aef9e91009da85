// A CSV file of runs that follows accounting: each update appends those that ended since the last
// one.
//
// An update ends with the line "# until=SECONDS"; what stands behind the last such line is of an
// update that was cut short, and is taken away by the next. One process at a time holds the file.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/UniqueFd.h"
#include "tools/easctl/history/Run.h"

namespace easctl {

class RunJournal {
  public:
    /// Opens or makes the file. Throws Failure when another update is under way.
    explicit RunJournal(std::string path);

    /// Until when the runs are in the file; no value in a new one.
    [[nodiscard]] std::optional<double> until() const { return until_; }
    void add(const Run& run);
    /// Writes what is left, makes it last, and says until when the file is complete.
    void finish(double until);

  private:
    void find_end();
    void start_file(off_t size);
    void write();
    [[noreturn]] void refuse(const char* what) const;

    std::string path_;
    eas::UniqueFd file_;
    std::optional<double> until_;
    std::string buffer_;
};

}  // namespace easctl
