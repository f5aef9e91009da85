// The sums of a simulation as a table for people, as CSV and JSON for programs, and as a picture.
#pragma once

#include <string>

#include "tools/easctl/cli/Output.h"
#include "tools/easctl/tag/Savings.h"

namespace easctl {

class SavingsReport {
  public:
    explicit SavingsReport(const Savings& savings);

    [[nodiscard]] std::string text(bool colored) const;
    [[nodiscard]] std::string csv() const;
    [[nodiscard]] Json json() const;
    /// What the classes leave out; empty when nothing.
    [[nodiscard]] std::string class_remark() const;
    /// The gnuplot commands: energy and time against the threshold of a sweep, or, without one, the
    /// energy change of each class.
    [[nodiscard]] std::string plot() const;

  private:
    struct Entry {
        std::string name;
        ClassSums sums;
    };

    [[nodiscard]] bool swept() const;
    [[nodiscard]] std::string policy_block(const std::string& policy, bool colored) const;
    [[nodiscard]] std::string sweep_block(const std::string& policy, const Entry& entry,
                                          bool colored) const;
    [[nodiscard]] std::vector<std::size_t> scenarios_of(const std::string& policy) const;
    [[nodiscard]] std::vector<std::string> policies() const;
    [[nodiscard]] std::string sweep_plot() const;
    [[nodiscard]] std::string class_plot() const;

    const Savings& savings_;
    std::vector<Entry> classes_;  // by energy, the largest first
    Entry total_;
};

}  // namespace easctl
