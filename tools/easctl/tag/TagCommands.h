// What the commands of the group "tag" share.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/tag/Library.h"

namespace easctl {

/// Which tags are meant.
struct TagNames {
    std::string user;
    std::string tag;

    /// `required`: one tag is meant; otherwise what is left out matches all.
    void add_to(CLI::App& command, bool required);
};

/// A row of a jobs file of which nothing came; one that could not be read has no names.
struct FailedRow {
    std::string place;  ///< "FILE:LINE"
    Failure failure;
    TagNames names;

    [[nodiscard]] std::string text() const;
    [[nodiscard]] Json json() const;
};

/// What a command about tags that its options name needs.
struct TagChoice {
    LibraryOptions library;
    TagNames names;

    /// Adds the command with its options; `required`: one tag is meant.
    CLI::App& add_command(CLI::App& group, const char* name, const char* description,
                          const char* examples, bool required);
};

/// A number above 0.
Check figure();
/// Cuts a run time to whole seconds, as it is in a file of jobs.
Check whole_seconds();

/// Options that describe one job, and the file of many that stands in for them.
class OneOrMany {
  public:
    OneOrMany(CLI::App& command, std::string& file, const std::string& description);

    /// An option without which one job is not described, or one that may lack with the others of
    /// its kind.
    template <typename T>
    void add(const char* name, T& value, const char* description, const char* type) {
        needed_.push_back(add_single(name, value, description, type));
    }
    template <typename T>
    void add_optional(const char* name, T& value, const char* description, const char* type) {
        optional_.push_back(add_single(name, value, description, type));
    }
    /// Whether one job is described. Throws Failure when options lack, or are given beside the
    /// file.
    [[nodiscard]] bool single() const;
    /// Whether the optional ones are given.
    [[nodiscard]] bool has_optional() const;

  private:
    template <typename T>
    Option add_single(const char* name, T& value, const char* description, const char* type) {
        const Option option = add_option(*command_, name, value, description).type_name(type);
        return option.check(std::is_arithmetic_v<T> ? figure() : some_text());
    }
    static void require(const std::vector<Option>& options);

    CLI::App* command_;
    Option file_;
    std::vector<Option> needed_;
    std::vector<Option> optional_;
};

void add_tag_generate(CLI::App& group, Globals& globals);
void add_tag_list(CLI::App& group, Globals& globals);
void add_tag_show(CLI::App& group, Globals& globals);
void add_tag_select(CLI::App& group, Globals& globals);
void add_tag_remove(CLI::App& group, Globals& globals);
void add_tag_verify(CLI::App& group, Globals& globals);

/// A name of a policy.
Check a_policy();

/// Predicted values of every frequency.
Json rows_as_json(const EnergyTag& tag);
/// "+3.42": a fraction as a percentage with its sign.
std::string signed_percent(double fraction, int decimals = 2);
/// Throws Failure unless there is exactly one.
const EnergyTag& the_only(const std::vector<EnergyTag>& tags, const TagNames& names);

}  // namespace easctl
