#include "tools/easctl/tag/RegenerateCommand.h"

#include <map>
#include <memory>

#include "common/model/JobMetrics.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/model/ModelStore.h"
#include "tools/easctl/tag/JobsFile.h"
#include "tools/easctl/tag/TagFilter.h"
#include "tools/easctl/tag/TagNames.h"
#include "tools/easctl/tag/TagTable.h"

namespace easctl {
namespace {

struct Options : TagChoice {
    TagFilterOptions filter;
    std::string jobs;
};

/// The tags that are meant, and the last run at the default frequency that is known of each.
class Regeneration {
  public:
    Regeneration(Globals& globals, TagTable& table, const CoEfficients& model)
        : globals_(globals), table_(table), model_(model) {}

    void choose(const Options& options) {
        const TagFilter filter(globals_, options.filter, model_);
        table_.for_each(options.names.user, options.names.tag, [&](const EnergyTag& tag) {
            if (filter.wants(tag, filter.facts(tag)))
                chosen_[{tag.user_name(), tag.energy_tag_name()}] = EnergyTag();
        });
    }

    void read(const std::string& path) {
        JobsFile jobs(path, JobsFile::names | JobsFile::job | JobsFile::counters);
        jobs.require_frequency(table_.default_khz());
        Progress progress("runs", jobs.lines().bytes_total(), globals_.quiet);
        JobRow row;
        for (CsvFile::Step step{}; (step = jobs.next(row)) != CsvFile::Step::end;) {
            progress.update(jobs.lines().bytes_read());
            if (step != CsvFile::Step::row)
                ++unusable_;
            else
                take(row);
        }
    }

    /// Each in a transaction of its own: a job finds the old tag, or the new one.
    void store() {
        for (const auto& [key, tag] : chosen_) {
            const bool known = tag.available() != 0;
            if (known)
                table_.store({tag}, true);
            Json& list = known ? made_ : unknown_;
            list.push_back({{"user", key.first}, {"tag", key.second}});
            if (known && !globals_.json)
                print(printable("regenerated " + name_of_tag(key.first, key.second) + " from job " +
                                tag.job_step_id()) +
                      '\n');
        }
        finish();
    }

  private:
    void take(const JobRow& row) {
        const auto found = chosen_.find({std::string(row.user), std::string(row.tag)});
        if (found == chosen_.end())
            return;
        const auto [cycles, instructions, bytes] = row.counters;
        const EnergyTag tag(&model_, table_.cluster().c_str(), found->first.first.c_str(),
                            std::string(row.job_id).c_str(), found->first.second.c_str(),
                            row.power_w, row.elapsed_s, GBS(bytes, row.elapsed_s),
                            GIPS(instructions, row.elapsed_s), CPI(cycles, instructions));
        if (tag.available() != 0)
            found->second = tag;
    }

    void finish() {
        const std::size_t left = unknown_.size();
        if (left > 0)
            globals_.outcome = ExitCode::found;
        if (globals_.json) {
            print_json({{"regenerated", std::move(made_)},
                        {"figures_unknown", std::move(unknown_)},
                        {"rows_left_out", unusable_}});
            return;
        }
        remark(globals_, std::to_string(made_.size()) + " tags regenerated; of " +
                             std::to_string(left) + " no run at the default frequency is known");
    }

    Globals& globals_;
    TagTable& table_;
    const CoEfficients& model_;
    std::map<TagKey, EnergyTag> chosen_;
    Json made_ = Json::array();
    Json unknown_ = Json::array();
    std::uint64_t unusable_ = 0;
};

void regenerate(Globals& globals, Options options) {
    Database database(options.library.database);
    options.library.resolve(database);
    const StoredModel stored =
        pick_model(database, options.library.cluster, options.library.default_khz);
    const CoEfficients model = load_model(database, stored.cluster, stored.default_khz);
    database.rollback();
    TagTable table(database, stored.cluster, stored.default_khz);
    Regeneration regeneration(globals, table, model);
    regeneration.choose(options);
    regeneration.read(options.jobs);
    regeneration.store();
}

}  // namespace

void add_tag_regenerate(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = options->add_command(
        group, "regenerate",
        "make tags anew with the present model, from known runs; 1: some runs are not known",
        "easctl tag regenerate --before-model --jobs /var/lib/eas/runs.csv\n"
        "easctl tag regenerate --user anna --jobs jobs.csv",
        false);
    add_option(command, "--jobs", options->jobs,
               "jobs or runs, as of tag generate or history; the last one of each tag counts")
        .required()
        .type_name("FILE");
    options->filter.add_to(command);
    set_action(command, [options, &globals] { regenerate(globals, *options); });
}

}  // namespace easctl
