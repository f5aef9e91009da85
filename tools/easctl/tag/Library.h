// The scheduler's five functions for a person: the cluster and its default frequency are found
// where that is possible, and a return code is thrown with its name, its meaning and what to do
// about it.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "common/model/EnergyTag.h"
#include "interface/FrequencyPolicy.h"
#include "tools/easctl/model/ModelOptions.h"
#include "tools/easctl/tag/ReturnCodes.h"

class CoEfficients;
class EnergyPerfThreshold;

namespace easctl {

/// What eas_initialize needs.
struct LibraryOptions : ModelOptions {
    std::string thresholds;

    void add_to(CLI::App& command);
};

/// A job as eas_generate_tag wants it.
struct TagRequest {
    std::string user;
    std::string tag;
    std::string job_id;
    std::array<double, 3> counters{};  // cycles, instructions, bytes of memory traffic
    int elapsed_s = 0;
    double power_w = 0.0;
};

class Library {
  public:
    /// Initialises the library; throws Failure.
    explicit Library(LibraryOptions options);

    [[nodiscard]] const std::string& cluster() const { return options_.cluster; }
    [[nodiscard]] int default_khz() const { return options_.default_khz; }
    [[nodiscard]] const CoEfficients& coefficients() const;
    [[nodiscard]] const EnergyPerfThreshold& thresholds() const;

    // Each throws the refusal of its function.
    /// Reads the tag back before it returns.
    void generate(const TagRequest& request);
    /// An empty name matches all.
    std::vector<EnergyTag> query(const std::string& user, const std::string& tag);
    eas::FrequencyChoice select(const std::string& user, const std::string& tag,
                                const std::string& policy);

    /// Makes way for a connection of one's own; none of the three is called after it.
    void stop_calling() { diagnostics_.reset(); }

  private:
    void read_back(const TagRequest& request);
    /// Throws Failure for names that the database would not take for names.
    void require_names(const std::string& user, const std::string& tag) const;

    LibraryOptions options_;
    bool sqlite_ = false;
    std::optional<Diagnostics> diagnostics_;  // only one may exist: after the own connection's
};

/// How tags are named in messages; without their names, all are meant.
std::string name_of_tag(const std::string& user, const std::string& tag);
/// "there is no tag "x" of anna".
std::string no_tag_named(const std::string& user, const std::string& tag);

}  // namespace easctl
