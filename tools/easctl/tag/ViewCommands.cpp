#include "tools/easctl/tag/ViewCommands.h"

#include <memory>

#include "common/model/EnergyPerfThreshold.h"
#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/history/RunSource.h"
#include "tools/easctl/tag/TagFilter.h"
#include "tools/easctl/tag/TagNames.h"
#include "tools/easctl/tag/TagTable.h"
#include "tools/easctl/tag/TradeOffPlot.h"

namespace easctl {

namespace {

struct View : TagChoice {
    TagFilterOptions filter;
    Format format = Format::table;
    bool khz = false;
    std::string plot;
};

/// The measured run of a tag; zeros when it has none.
eas::TagRow measured_run(const EnergyTag& tag) {
    const auto index = static_cast<std::size_t>(tag.get_default_energy_index());
    return index < tag.rows().size() ? tag.row(index) : eas::TagRow{};
}

eas::FrequencyChoice choice(const EnergyTag& tag, std::string_view policy, const Library& library) {
    return eas::select_frequency(tag, policy, library.thresholds());
}

/// Predicted values of every frequency.
Json rows_as_json(const EnergyTag& tag) {
    Json rows = Json::array();
    for (const eas::TagRow& row : tag.rows()) {
        rows.push_back({{"frequency_khz", row.frequency},
                        {"power_w", row.power},
                        {"elapsed_s", row.seconds},
                        {"energy_change_pct", 100.0 * row.energy_change},
                        {"time_change_pct", 100.0 * row.time_change}});
    }
    return rows;
}

Json tag_as_json(const EnergyTag& tag, const Library& library) {
    Json json{{"cluster", tag.cluster_name()},
              {"user", tag.user_name()},
              {"tag", tag.energy_tag_name()},
              {"job_id", tag.job_step_id()},
              {"default_frequency_khz", tag.default_frequency()}};
    for (const auto policy : {eas::minimize_energy, eas::minimize_time}) {
        const eas::FrequencyChoice selected = choice(tag, policy, library);
        json["selected"][std::string(policy)] = {{"frequency_khz", selected.frequency},
                                                 {"time_change_pct", 100.0 * selected.time_var}};
    }
    json["rows"] = rows_as_json(tag);
    return json;
}

Json as_json(const std::vector<EnergyTag>& tags, const Library& library) {
    Json all = Json::array();
    for (const EnergyTag& tag : tags)
        all.push_back(tag_as_json(tag, library));
    return {{"tags", std::move(all)}};
}

Table empty_list(bool csv, bool with_runs) {
    std::vector<Column> columns;
    if (csv)
        columns = {{"user"},
                   {"tag"},
                   {"job_id"},
                   {"default_frequency_khz"},
                   {"elapsed_s"},
                   {"power_w"},
                   {"minimize_energy_khz"},
                   {"minimize_time_khz"},
                   {"created_s"},
                   {"model"}};
    else
        columns = {{"User"},
                   {"Tag"},
                   {"Job"},
                   {"Time s", Align::right},
                   {"Power W", Align::right},
                   {"Energy kWh", Align::right},
                   {"minimize_energy", Align::right},
                   {"minimize_time", Align::right},
                   {"Made"},
                   {"Model"}};
    if (with_runs)
        columns.push_back({csv ? "drift" : "Drift"});
    return Table(std::move(columns));
}

std::vector<Cell> row_of_list(const EnergyTag& tag, const TagFacts& facts, const Library& library,
                              bool csv) {
    const eas::TagRow run = measured_run(tag);
    const int by_energy = choice(tag, eas::minimize_energy, library).frequency;
    const int by_time = choice(tag, eas::minimize_time, library).frequency;
    std::vector<Cell> row{tag.user_name(), tag.energy_tag_name(), tag.job_step_id()};
    if (csv)
        row.insert(row.end(), {std::to_string(tag.default_frequency()), std::to_string(run.seconds),
                               exact(run.power), std::to_string(by_energy), std::to_string(by_time),
                               std::to_string(tag.create_time())});
    else
        row.insert(row.end(), {std::to_string(run.seconds), number(run.power, 1),
                               number(run.energy() / joules_per_kwh, 4), ghz(by_energy),
                               ghz(by_time), day_of(static_cast<double>(tag.create_time()))});
    const bool other = facts.origin == TagOrigin::other_model;
    row.emplace_back(name_of(facts.origin), other ? Style::warning : Style::plain);
    if (facts.drift)
        row.emplace_back(name_of(facts.drift->state),
                         facts.drift->state == DriftState::stale ? Style::bad : Style::plain);
    return row;
}

Json listed_as_json(const EnergyTag& tag, const TagFacts& facts, const Library& library) {
    Json json = tag_as_json(tag, library);
    json["created_s"] = tag.create_time();
    json["model"] = name_of(facts.origin);
    if (facts.drift) {
        json["drift"] = name_of(facts.drift->state);
        json["used"] = facts.used;
    }
    return json;
}

void list(Globals& globals, const View& options) {
    Library library(options.library);
    library.stop_calling();
    const TagFilter filter(globals, options.filter, library.coefficients());
    Database database(options.library.database);
    TagTable stored(database, library.cluster(), library.default_khz());
    const bool csv = options.format == Format::csv;
    Table table = empty_list(csv, filter.has_runs());
    Json all = Json::array();
    stored.for_each(options.names.user, options.names.tag, [&](const EnergyTag& tag) {
        const TagFacts facts = filter.facts(tag);
        if (!filter.wants(tag, facts))
            return;
        if (globals.json)
            all.push_back(listed_as_json(tag, facts, library));
        else
            table.add(row_of_list(tag, facts, library, csv));
    });
    if (globals.json) {
        print_json({{"tags", std::move(all)}});
        return;
    }
    if (table.empty())
        remark(globals, "cluster \"" + library.cluster() + "\" has no such tag");
    print(csv ? table.csv() : table.text(globals.colored()));
}

/// The library's own report, with names that cannot steer the terminal.
std::string report_of(EnergyTag tag, bool khz) {
    tag.cluster_name(printable(tag.cluster_name()));
    tag.user_name(printable(tag.user_name()));
    tag.energy_tag_name(printable(tag.energy_tag_name()));
    tag.job_step_id(printable(tag.job_step_id()));
    return tag.format_etag(khz ? 1 : 0);
}

void show(Globals& globals, const View& options) {
    Library library(options.library);
    const std::vector<EnergyTag> tags = library.query(options.names.user, options.names.tag);
    if (!options.plot.empty())
        the_only(tags, options.names);
    if (tags.empty())
        throw Failure(ExitCode::found, no_tag_named(options.names.user, options.names.tag),
                      "easctl tag list shows the tags that there are");
    if (globals.json)
        print_json(as_json(tags, library));
    for (std::size_t i = 0; i < tags.size() && !globals.json; ++i)
        print((i > 0 ? "\n" : "") + report_of(tags[i], options.khz));
    draw(options.plot, trade_off_plot(tags.front(), library.thresholds()), globals);
}

}  // namespace

void add_tag_list(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<View>();
    CLI::App& command =
        options->add_command(group, "list", "list tags, with what each policy selects for them",
                             "easctl tag list\n"
                             "easctl tag list --user anna --format csv\n"
                             "easctl tag list --before-model\n"
                             "easctl tag list --stale --runs /var/lib/eas/runs.csv",
                             false);
    options->filter.add_to(command);
    add_format_option(command, options->format);
    set_action(command, [options, &globals] { list(globals, *options); });
}

void add_tag_show(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<View>();
    CLI::App& command = options->add_command(group, "show", "print the report of tags",
                                             "easctl tag show --user anna --tag hpl\n"
                                             "easctl tag show --user anna --tag hpl --plot hpl.svg",
                                             false);
    add_option(command, "--unit", "of frequencies: khz or ghz",
               [options](const std::string& unit) { options->khz = unit == "khz"; })
        .check(one_of({"khz", "ghz"}))
        .type_name("UNIT");
    add_plot_option(command, options->plot,
                    "draw energy against run time, with the frequencies that the policies select,");
    set_action(command, [options, &globals] { show(globals, *options); });
}

}  // namespace easctl
