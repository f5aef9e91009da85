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
    /// What the classes leave out; empty when they leave out none.
    [[nodiscard]] std::string class_remark() const;
    /// The gnuplot commands of the picture.
    [[nodiscard]] std::string plot() const;

  private:
    [[nodiscard]] bool swept() const;
    [[nodiscard]] std::string policy_block(const std::string& policy, bool colored) const;
    [[nodiscard]] std::string sweep_block(const std::string& policy, const NamedSums& entry,
                                          bool colored) const;

    const Savings& savings_;
    std::vector<NamedSums> classes_;  // by energy, the largest first
    NamedSums total_;
};

}  // namespace easctl
