// easctl tag list, show and select: tags for the eye.
#include <algorithm>

#include "common/model/EnergyPerfThreshold.h"
#include "tools/easctl/cli/Gnuplot.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/tag/TagCommands.h"
#include "tools/easctl/tag/TagExplain.h"
#include "tools/easctl/tag/TradeOffPlot.h"

namespace easctl {

namespace {

struct View : TagChoice {
    Format format = Format::table;
    bool khz = false;
    std::string plot;
};

/// The measured run of a tag.
struct Measured {
    explicit Measured(const EnergyTag& tag) {
        const auto row = static_cast<std::size_t>(tag.get_default_energy_index());
        if (row >= tag.frequency_array().size())
            return;
        seconds = tag.predict_elapse_time_array()[row];
        watts = tag.predict_power_array()[row];
    }
    int seconds = 0;
    double watts = 0.0;
};

eas::FrequencyChoice choice(const EnergyTag& tag, std::string_view policy, const Library& library) {
    return eas::select_frequency(tag, policy, library.thresholds());
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

std::string list_of(const std::vector<EnergyTag>& tags, const Library& library, Format format,
                    bool colored) {
    const bool csv = format == Format::csv;
    Table table(csv ? std::vector<Column>{{"user"},
                                          {"tag"},
                                          {"job_id"},
                                          {"default_frequency_khz"},
                                          {"elapsed_s"},
                                          {"power_w"},
                                          {"minimize_energy_khz"},
                                          {"minimize_time_khz"}}
                    : std::vector<Column>{{"User"},
                                          {"Tag"},
                                          {"Job"},
                                          {"Time s", Align::right},
                                          {"Power W", Align::right},
                                          {"Energy kWh", Align::right},
                                          {"minimize_energy", Align::right},
                                          {"minimize_time", Align::right}});
    for (const EnergyTag& tag : tags) {
        const Measured run(tag);
        const int by_energy = choice(tag, eas::minimize_energy, library).frequency;
        const int by_time = choice(tag, eas::minimize_time, library).frequency;
        std::vector<Cell> row{tag.user_name(), tag.energy_tag_name(), tag.job_step_id()};
        if (csv)
            row.insert(row.end(),
                       {std::to_string(tag.default_frequency()), std::to_string(run.seconds),
                        exact(run.watts), std::to_string(by_energy), std::to_string(by_time)});
        else
            row.insert(row.end(), {std::to_string(run.seconds), number(run.watts, 1),
                                   number(run.watts * run.seconds / joules_per_kwh, 4),
                                   ghz(by_energy), ghz(by_time)});
        table.add(std::move(row));
    }
    return csv ? table.csv() : table.text(colored);
}

void list(Globals& globals, const View& options) {
    Library library(options.library);
    std::vector<EnergyTag> tags = library.query(options.names.user, options.names.tag);
    std::sort(tags.begin(), tags.end(), [](const EnergyTag& a, const EnergyTag& b) {
        return std::tie(a.user_name(), a.energy_tag_name()) <
               std::tie(b.user_name(), b.energy_tag_name());
    });
    if (globals.json) {
        print_json(as_json(tags, library));
        return;
    }
    if (tags.empty())
        remark(globals, "cluster \"" + library.cluster() + "\" has no such tag");
    print(list_of(tags, library, options.format, globals.colored()));
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

struct Select : TagChoice {
    std::string policy;
    bool explain = false;
};

struct Shown {
    const char* text;
    Style style;
};

Shown shown(Verdict verdict) {
    switch (verdict) {
        case Verdict::selected:
            return {"selected", Style::good};
        case Verdict::admitted:
            return {"admitted", Style::plain};
        case Verdict::rejected:
            break;
    }
    return {"rejected", Style::faint};
}

std::string table_of(const Explanation& explanation, bool colored) {
    Table table({{"Frequency", Align::right},
                 {"Energy %", Align::right},
                 {"Time %", Align::right},
                 {"Verdict"},
                 {"Why"}});
    for (const Candidate& candidate : explanation.candidates) {
        const auto [text, style] = shown(candidate.verdict);
        table.add({{ghz(candidate.frequency), style},
                   {signed_percent(candidate.energy_change), style},
                   {signed_percent(candidate.time_change), style},
                   {text, style},
                   {candidate.reason, style}});
    }
    return table.text(colored);
}

Json as_json(const Explanation& explanation) {
    Json rows = Json::array();
    for (const Candidate& candidate : explanation.candidates) {
        rows.push_back({{"frequency_khz", candidate.frequency},
                        {"energy_change_pct", 100.0 * candidate.energy_change},
                        {"time_change_pct", 100.0 * candidate.time_change},
                        {"verdict", shown(candidate.verdict).text},
                        {"reason", candidate.reason}});
    }
    return {{"rule", explanation.rule}, {"candidates", std::move(rows)}};
}

/// The explanation of what the library selected: told from the same tag and thresholds, so that it
/// can only differ when somebody has replaced the tag meanwhile.
Explanation explanation_of(Library& library, const Select& options,
                           const eas::FrequencyChoice& selected) {
    const std::vector<EnergyTag> tags = library.query(options.names.user, options.names.tag);
    Explanation explanation =
        explain(the_only(tags, options.names), options.policy, library.thresholds());
    if (explanation.choice.frequency != selected.frequency) {
        throw Failure(ExitCode::found,
                      name_of_tag(options.names.user, options.names.tag) + " has changed meanwhile",
                      "ask again");
    }
    return explanation;
}

void select(Globals& globals, const Select& options) {
    Library library(options.library);
    const eas::FrequencyChoice selected =
        library.select(options.names.user, options.names.tag, options.policy);
    Explanation explanation;
    if (options.explain)
        explanation = explanation_of(library, options, selected);
    if (globals.json) {
        Json json{{"user", options.names.user},
                  {"tag", options.names.tag},
                  {"policy", options.policy},
                  {"frequency_khz", selected.frequency},
                  {"time_change_pct", 100.0 * selected.time_var}};
        if (options.explain)
            json["explanation"] = as_json(explanation);
        print_json(json);
        return;
    }
    if (options.explain)
        print(options.policy + ": " + explanation.rule + "\n\n" +
              table_of(explanation, globals.colored()) + '\n');
    print(paint(ghz(selected.frequency), Style::bold, globals.colored()) + " (" +
          std::to_string(selected.frequency) + " KHz), expected run time " +
          signed_percent(selected.time_var) + " %\n");
}

}  // namespace

Json rows_as_json(const EnergyTag& tag) {
    Json rows = Json::array();
    for (std::size_t i = 0; i < tag.frequency_array().size(); ++i) {
        rows.push_back({{"frequency_khz", tag.frequency_array()[i]},
                        {"power_w", tag.predict_power_array()[i]},
                        {"elapsed_s", tag.predict_elapse_time_array()[i]},
                        {"energy_change_pct", 100.0 * tag.energy_saving_pct_array()[i]},
                        {"time_change_pct", 100.0 * tag.perf_degrad_pct_array()[i]}});
    }
    return rows;
}

std::string signed_percent(double fraction, int decimals) {
    const std::string text = number(100.0 * fraction, decimals);
    return text.front() == '-' ? text : '+' + text;
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

void add_tag_list(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<View>();
    CLI::App& command =
        options->add_command(group, "list", "list tags, with what each policy selects for them",
                             "easctl tag list\neasctl tag list --user anna --format csv", false);
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

void add_tag_select(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Select>();
    CLI::App& command = options->add_command(
        group, "select", "the frequency for a job that names a tag, and why",
        "easctl tag select --user anna --tag hpl --policy minimize_energy --explain", true);
    add_option(command, "--policy", options->policy, "by which it is selected")
        .check(a_policy())
        .required()
        .type_name("POLICY");
    add_flag(command, "--explain", options->explain,
             "every frequency, and the rule that admitted or rejected it");
    set_action(command, [options, &globals] { select(globals, *options); });
}

}  // namespace easctl
