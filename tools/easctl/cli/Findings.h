// What a check found: each finding has a place (a line of a file, a column of a table), what is
// wrong there and what to do about it.
#pragma once

#include <string>
#include <vector>

#include "tools/easctl/cli/Output.h"

namespace easctl {

enum class Severity { warning, error };

struct Finding {
    Severity severity;
    std::string place;  ///< "FILE:LINE", "TABLE.COLUMN", ...
    std::string text;
    std::string hint;  ///< what to do; may be empty
};

class Findings {
  public:
    void error(std::string where, std::string text, std::string hint = {});
    void warning(std::string where, std::string text, std::string hint = {});

    [[nodiscard]] bool has_errors() const;
    [[nodiscard]] bool empty() const { return all_.empty(); }
    [[nodiscard]] const std::vector<Finding>& all() const { return all_; }

    /// One finding per line, its hint below it.
    [[nodiscard]] std::string text(bool colored) const;
    [[nodiscard]] Json json() const;
    /// The errors as one message of several lines, for a Failure.
    [[nodiscard]] std::string errors_as_message() const;

  private:
    std::vector<Finding> all_;
};

/// "FILE:LINE".
std::string place(const std::string& file, int line);

}  // namespace easctl
