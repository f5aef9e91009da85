// Options that describe one job, and the file of many jobs that stands in for them.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "tools/easctl/cli/Options.h"

namespace easctl {

/// Cuts a run time to whole seconds, as it is in a file of jobs.
Check whole_seconds();

class JobOptions {
  public:
    /// Adds --jobs, which takes the name of the file.
    JobOptions(CLI::App& command, std::string& file, const std::string& description);

    /// An option that one job must have.
    template <typename T>
    void add(const char* name, T& value, const char* description, const char* type) {
        needed_.push_back(add_single(name, value, description, type));
    }
    /// One of those that a job may have, all of them or none.
    template <typename T>
    void add_optional(const char* name, T& value, const char* description, const char* type) {
        optional_.push_back(add_single(name, value, description, type));
    }
    /// Whether one job is described. Throws Failure when options are missing, or are given beside
    /// the file.
    [[nodiscard]] bool describe_one() const;
    /// Whether the optional ones are given.
    [[nodiscard]] bool has_optional() const;

  private:
    template <typename T>
    Option add_single(const char* name, T& value, const char* description, const char* type) {
        const Option option = add_option(*command_, name, value, description).type_name(type);
        return option.check(std::is_arithmetic_v<T> ? positive_number() : some_text());
    }
    void refuse_beside_file() const;
    static void require(const std::vector<Option>& options);

    CLI::App* command_;
    Option file_;
    std::vector<Option> needed_;
    std::vector<Option> optional_;
};

}  // namespace easctl
