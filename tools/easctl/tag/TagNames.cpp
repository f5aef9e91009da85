#include "tools/easctl/tag/TagNames.h"

#include "interface/FrequencyPolicy.h"
#include "tools/easctl/cli/Command.h"

namespace easctl {

void TagNames::add_to(CLI::App& command, bool required) {
    const std::string otherwise = required ? "" : " (default: all)";
    add_option(command, "--user", user, "owner of the tag" + otherwise)
        .required(required)
        .check(some_text())
        .type_name("NAME");
    add_option(command, "--tag", tag, "name of the tag" + otherwise)
        .required(required)
        .check(some_text())
        .type_name("NAME");
}

CLI::App& TagChoice::add_command(CLI::App& group, const char* name, const char* description,
                                 const char* examples, bool required) {
    CLI::App& command = easctl::add_command(group, name, description, examples);
    library.add_to(command);
    names.add_to(command, required);
    return command;
}

const EnergyTag& the_only(const std::vector<EnergyTag>& tags, const TagNames& names) {
    if (tags.size() == 1)
        return tags.front();
    throw Failure(ExitCode::found,
                  tags.empty() ? no_tag_named(names.user, names.tag)
                               : std::to_string(tags.size()) + " tags are meant, not one: " +
                                     name_of_tag(names.user, names.tag),
                  "easctl tag list shows the tags that there are");
}

Check a_policy() {
    return one_of({std::string(eas::minimize_energy), std::string(eas::minimize_time)});
}

}  // namespace easctl
