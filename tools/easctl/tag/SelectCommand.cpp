#include "tools/easctl/tag/SelectCommand.h"

#include <memory>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/tag/TagExplain.h"
#include "tools/easctl/tag/TagNames.h"

namespace easctl {

namespace {

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
          std::to_string(selected.frequency) + " kHz), expected run time " +
          signed_percent(selected.time_var) + " %\n");
}

}  // namespace

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
