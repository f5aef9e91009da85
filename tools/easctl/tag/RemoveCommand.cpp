#include "tools/easctl/tag/RemoveCommand.h"

#include <algorithm>
#include <memory>
#include <set>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/model/ModelStore.h"
#include "tools/easctl/tag/TagFilter.h"
#include "tools/easctl/tag/TagNames.h"
#include "tools/easctl/tag/TagTable.h"

namespace easctl {

namespace {

struct Remove : TagChoice {
    TagFilterOptions filter;
    bool all = false;
    bool yes = false;
};

/// The tags that are meant, and the time of the latest: what is made later stays.
struct Chosen {
    std::vector<TagKey> tags;
    std::set<std::string> users;
    double made_until = 0;
};

Chosen choose(Globals& globals, const Remove& options, TagTable& table, const CoEfficients& model) {
    const TagFilter filter(globals, options.filter, model);
    Progress progress("tags", 0, globals.quiet);
    Chosen chosen;
    std::uint64_t seen = 0;
    table.for_each(options.names.user, options.names.tag, [&](const EnergyTag& tag) {
        progress.update(++seen);
        if (!filter.wants(tag, filter.facts(tag)))
            return;
        chosen.tags.emplace_back(tag.user_name(), tag.energy_tag_name());
        chosen.users.insert(tag.user_name());
        chosen.made_until = std::max(chosen.made_until, static_cast<double>(tag.create_time()));
    });
    return chosen;
}

/// One tag that both names name needs no question.
void ask(const Remove& options, const Chosen& chosen, const std::string& cluster) {
    const bool named = !options.names.user.empty() && !options.names.tag.empty();
    if (options.yes || chosen.tags.empty() || (named && chosen.tags.size() == 1))
        return;
    require_yes("remove " + std::to_string(chosen.tags.size()) + " tags of " +
                std::to_string(chosen.users.size()) + " users of cluster \"" + cluster + "\"?");
}

/// What was removed when a failure came stays removed, and is told.
void remove_all(Globals& globals, TagTable& table, const Chosen& chosen) {
    Progress progress("tags", chosen.tags.size(), globals.quiet);
    Json list = Json::array();
    std::size_t count = 0;
    const auto say = [&](const TagKey& key) {
        ++count;
        if (globals.json)
            list.push_back({{"user", key.first}, {"tag", key.second}});
        else
            print(printable("removed " + name_of_tag(key.first, key.second)) + '\n');
        progress.update(count);
    };
    try {
        table.remove(chosen.tags, chosen.made_until, say);
    } catch (Failure& failure) {
        failure.message += " (" + std::to_string(count) + " of " +
                           std::to_string(chosen.tags.size()) + " tags had been removed)";
        throw;
    }
    if (globals.json)
        print_json({{"removed", std::move(list)}});
}

void remove(Globals& globals, Remove options) {
    const TagNames& names = options.names;
    if (names.user.empty() && names.tag.empty() && !options.all && !options.filter.chooses()) {
        throw Failure(
            ExitCode::usage, "which tags?",
            "give --user, --tag, both, or one of --older-than, --before-model, --stale and "
            "--unused; --all for every tag of the cluster");
    }
    Database database(options.library.database);
    options.library.resolve(database);
    const StoredModel stored =
        pick_model(database, options.library.cluster, options.library.default_khz);
    const CoEfficients model = load_model(database, stored.cluster, stored.default_khz);
    database.rollback();
    TagTable table(database, stored.cluster, stored.default_khz);
    const Chosen chosen = choose(globals, options, table, model);
    ask(options, chosen, stored.cluster);
    remove_all(globals, table, chosen);
    if (chosen.tags.empty() && !globals.json)
        remark(globals, options.filter.chooses() ? "there is no such tag"
                                                 : no_tag_named(names.user, names.tag));
}

}  // namespace

void add_tag_remove(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Remove>();
    CLI::App& command =
        options->add_command(group, "remove", "remove tags, and print which",
                             "easctl tag remove --user anna --tag hpl\n"
                             "easctl tag remove --before-model --older-than 90d\n"
                             "easctl tag remove --unused --runs /var/lib/eas/runs.csv --from 1y",
                             false);
    options->filter.add_to(command);
    add_flag(command, "--all", options->all, "every tag of the cluster and default frequency");
    add_flag(command, "-y,--yes", options->yes, "do not ask");
    set_action(command, [options, &globals] { remove(globals, *options); });
}

}  // namespace easctl
