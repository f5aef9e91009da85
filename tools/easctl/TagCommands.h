// What the commands of the group "tag" share.
#pragma once

#include <memory>
#include <string>

#include "tools/easctl/Command.h"
#include "tools/easctl/Library.h"

namespace easctl {

/// Which tags are meant.
struct TagNames {
    std::string user;
    std::string tag;

    /// `required`: one tag is meant; otherwise what is left out matches all.
    void add_to(CLI::App& command, bool required);
};

/// Options that describe one job, and the file of many that stands in for them.
class OneOrMany {
  public:
    OneOrMany(CLI::App& command, std::string& file, const std::string& description);

    template <typename T>
    void add(const char* name, T& value, const char* description, const char* type) {
        singles_.push_back(command_->add_option(name, value, description)->type_name(type));
    }
    /// Throws Failure when both are given.
    void check() const;

  private:
    CLI::App* command_;
    CLI::Option* file_;
    std::vector<CLI::Option*> singles_;
};

enum class Format { table, csv };
void add_format_option(CLI::App& command, Format& format);

void add_tag_generate(CLI::App& group, Globals& globals);
void add_tag_list(CLI::App& group, Globals& globals);
void add_tag_show(CLI::App& group, Globals& globals);
void add_tag_select(CLI::App& group, Globals& globals);
void add_tag_remove(CLI::App& group, Globals& globals);
void add_tag_verify(CLI::App& group, Globals& globals);

/// Predicted values of every frequency.
Json rows_as_json(const EnergyTag& tag);
/// "+3.42": a fraction as a percentage with its sign.
std::string signed_percent(double fraction, int decimals = 2);
/// Throws Failure unless there is exactly one.
const EnergyTag& the_only(const std::vector<EnergyTag>& tags, const TagNames& names);

}  // namespace easctl
