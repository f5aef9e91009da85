// EasLibrary.h - libeas and libeasnode, opened at run time: a job must start where they are
// missing. They stay open until the process ends, which is always a child made for the purpose.
// Errors are std::runtime_error.
#pragma once

#include <eas/interface.h>
#include <eas/node.h>

#include <optional>
#include <string>

#include "adapters/job/SiteSettings.h"

namespace eas::job {

/// The scheduler's functions, and what they mean for a job.
class EasLibrary {
  public:
    /// Opens the library and initialises it for the cluster, with an environment in which nothing
    /// holds that a user may have set.
    explicit EasLibrary(const SiteSettings& settings);

    struct Choice {
        int frequency = 0;  // kHz
        double change = 0;  // of the run time, a fraction
    };
    /// No value: there is no such tag.
    std::optional<Choice> select(std::string user, std::string tag, std::string policy) const;

    /// What a tag predicts; W and s.
    struct Prediction {
        double watts = 0;
        double seconds = 0;
    };
    struct Tag {
        std::string job;  // that it was generated from
        std::optional<Prediction> at, at_default;
    };
    /// No value: there is no such tag.
    std::optional<Tag> query(std::string user, std::string tag, int frequency) const;

    struct Measurement {
        double counters[3] = {0, 0, 0};  // cycles, instructions, bytes of memory traffic
        double seconds = 0;
        double watts = 0;
    };
    /// Makes the tag and reads it back, since a commit that fails is not reported; throws with the
    /// reason when there is none of this job afterwards.
    void generate(std::string user, std::string tag, std::string job,
                  const Measurement& measured) const;

  private:
    [[nodiscard]] std::string other_job(const std::string& user, const std::string& tag) const;

    std::string cluster_;
    int default_frequency_ = 0;
    decltype(&::eas_initialize) initialize_ = nullptr;
    decltype(&::eas_generate_tag) generate_ = nullptr;
    decltype(&::eas_auto_select_frequency) select_ = nullptr;
    decltype(&::eas_query_tag) query_ = nullptr;
};

/// The node's functions.
struct NodeLibrary {
    explicit NodeLibrary(const std::string& name);

    decltype(&::easnode_meter_open) meter_open = nullptr;
    decltype(&::easnode_meter_read) meter_read = nullptr;
    decltype(&::easnode_meter_close) meter_close = nullptr;
    decltype(&::easnode_frequency_open) frequency_open = nullptr;
    decltype(&::easnode_frequency_close) frequency_close = nullptr;
    decltype(&::easnode_frequency_save) frequency_save = nullptr;
    decltype(&::easnode_frequency_set) frequency_set = nullptr;
    decltype(&::easnode_frequency_restore) frequency_restore = nullptr;
    decltype(&::easnode_error_text) error_text = nullptr;
};

/// The environment of the library and of the scheduler's programs: nothing that a user may have
/// set, the data sources of the administrator. For a child process.
void set_up_environment(const SiteSettings& settings);

}  // namespace eas::job
