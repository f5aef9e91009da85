#include "tools/easctl/tag/RemoveCommand.h"

#include <memory>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/tag/TagNames.h"

namespace easctl {

namespace {

struct Remove : TagChoice {
    bool all = false;
    bool yes = false;
};

void remove(Globals& globals, const Remove& options) {
    const TagNames& names = options.names;
    if (names.user.empty() && names.tag.empty() && !options.all) {
        throw Failure(ExitCode::usage, "which tags?",
                      "give --user, --tag or both; --all for every tag of the cluster");
    }
    Library library(options.library);
    const std::size_t count = library.query(names.user, names.tag).size();
    if (count > 1 && !options.yes)
        require_yes("remove " + std::to_string(count) + " tags of cluster \"" + library.cluster() +
                    "\" (" + name_of_tag(names.user, names.tag) + ")?");
    const auto removed = library.remove(names.user, names.tag);
    Json list = Json::array();
    for (const auto& [user, tag] : removed) {
        if (globals.json)
            list.push_back({{"user", user}, {"tag", tag}});
        else
            print(printable("removed " + name_of_tag(user, tag)) + '\n');
    }
    if (globals.json)
        print_json({{"removed", std::move(list)}});
    else if (removed.empty())
        remark(globals, no_tag_named(names.user, names.tag));
}

}  // namespace

void add_tag_remove(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Remove>();
    CLI::App& command = options->add_command(
        group, "remove", "remove tags, and print which",
        "easctl tag remove --user anna --tag hpl\neasctl tag remove --user anna --yes", false);
    add_flag(command, "--all", options->all, "every tag of the cluster and default frequency");
    add_flag(command, "-y,--yes", options->yes, "do not ask before more than one tag is removed");
    set_action(command, [options, &globals] { remove(globals, *options); });
}

}  // namespace easctl
