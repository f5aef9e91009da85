// easctl node info: what this node has; per figure of the meter which source serves, which were
// tried, and why they do not; how its frequencies are set.
#include <algorithm>
#include <array>
#include <memory>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/node/CpuList.h"
#include "tools/easctl/node/FrequencyControl.h"
#include "tools/easctl/node/NodeCommands.h"
#include "tools/easctl/node/NodeLinks.h"
#include "tools/easctl/node/NodeMeter.h"

namespace easctl {
namespace {

struct FigureRow {
    const char* title;
    const char* member;  // of the document
    easnode_figure_id id;
};
// Cycles come from the same source as instructions.
constexpr std::array<FigureRow, 3> figure_rows = {{
    {"cycles, instructions", "instructions", EASNODE_INSTRUCTIONS},
    {"memory traffic", "memory", EASNODE_MEMORY},
    {"energy", "energy", EASNODE_ENERGY},
}};

struct StateName {
    easnode_source_state state;
    const char* name;
    Style style;
};
constexpr std::array<StateName, 4> state_names = {{
    {EASNODE_SERVES, "serves", Style::good},
    {EASNODE_REFUSED, "refused", Style::warning},
    {EASNODE_NOT_TRIED, "not tried", Style::faint},
    {EASNODE_NOT_WANTED, "not in order", Style::faint},
}};

const StateName& name_of_state(int state) {
    const auto* found = std::find_if(state_names.begin(), state_names.end(),
                                     [state](const StateName& one) { return one.state == state; });
    return found == state_names.end() ? state_names.back() : *found;
}

std::string text_of_source(const easnode_source& source) {
    if (source.state == EASNODE_NOT_TRIED)
        return "one before it serves";
    return source.state == EASNODE_NOT_WANTED ? "only where it is named" : source.text;
}

void add_figure(Table& table, const FigureRow& row, const NodeMeter& meter) {
    std::string title = row.title;
    for (const easnode_source& source : meter.sources(row.id)) {
        const StateName& state = name_of_state(source.state);
        table.add({std::exchange(title, ""),
                   source.name,
                   {state.name, state.style},
                   text_of_source(source)});
    }
}

Json figure_json(const FigureRow& row, const NodeMeter& meter) {
    const auto source = meter.serving(row.id);
    Json json{{"source", source ? Json(source->name) : Json(nullptr)},
              {"covers", source ? Json(source->text) : Json(nullptr)},
              {"extent", source ? Json(name_of_extent(source->extent)) : Json(nullptr)},
              {"sources", Json::array()}};
    for (const easnode_source& one : meter.sources(row.id))
        json["sources"].push_back({{"name", one.name},
                                   {"state", name_of_state(one.state).name},
                                   {"text", text_of_source(one)}});
    return json;
}

struct NodeView {
    explicit NodeView(const MeterOptions& options) : meter(options, 0, NodeMeter::Use::look) {}

    [[nodiscard]] bool complete() const {
        return info.method != EASNODE_FREQUENCY_NONE &&
               std::all_of(figure_rows.begin(), figure_rows.end(), [this](const FigureRow& row) {
                   return meter.serving(row.id).has_value();
               });
    }

    NodeFrequency frequency{{}};
    easnode_frequency_info info = frequency.info();
    Nominal nominal = nominal_of(frequency, info);
    NodeMeter meter;
};

std::string steps_text(const std::vector<easnode_step>& steps) {
    constexpr std::size_t most_on_a_line = 12;
    if (steps.size() > most_on_a_line)
        return std::to_string(steps.size()) + " from " + std::to_string(steps.front().khz) +
               " down to " + std::to_string(steps.back().khz) + " kHz";
    std::string text;
    for (const easnode_step& step : steps)
        text += (text.empty() ? "" : ", ") + std::to_string(step.khz) +
                (step.turbo != 0 ? " (turbo)" : "");
    return text.empty() ? "none" : text + " kHz";
}

void print_view(const NodeView& view, bool colored) {
    easnode_topology topology{};
    topology.size = sizeof topology;
    easnode_topology_read(&topology);
    print("processor    " + printable(processor_text()) + "\nCPUs         " + cpu_text(all_cpus()) +
          ": " + std::to_string(topology.cpus) + " on " + std::to_string(topology.cores) +
          " cores of " + std::to_string(topology.sockets) + " sockets\n\n");
    Table table({{"figure"}, {"source"}, {"state"}, {"what it covers, or why it does not serve"}});
    for (const FigureRow& row : figure_rows)
        add_figure(table, row, view.meter);
    print(table.text(colored));
    const bool can_set = view.info.method != EASNODE_FREQUENCY_NONE;
    const std::string nominal =
        view.nominal.khz > 0 ? std::to_string(view.nominal.khz) + " kHz, " + view.nominal.from
                             : "unknown";
    print("\nfrequency    " +
          (can_set ? printable(frequency_text(view.info)) : "missing: no cpufreq driver") +
          "\nnominal      " + nominal + "\nsteps        " + steps_text(view.frequency.steps()) +
          '\n');
}

Json json_of(const NodeView& view) {
    Json json{
        {"ok", view.complete()},
        {"processor", processor_text()},
        {"cpus", all_cpus()},
        {"figures", Json::object()},
        {"nominal_khz", view.nominal.khz > 0 ? Json(view.nominal.khz) : Json(nullptr)},
        {"nominal_from", view.nominal.from},
        {"frequency_driver", *view.info.driver != '\0' ? Json(view.info.driver) : Json(nullptr)},
        {"steps", Json::array()}};
    for (const FigureRow& row : figure_rows)
        json["figures"][row.member] = figure_json(row, view.meter);
    for (const easnode_step& step : view.frequency.steps())
        json["steps"].push_back({{"frequency_khz", step.khz}, {"turbo", step.turbo != 0}});
    return json;
}

void run_info(const MeterOptions& options, Globals& globals) {
    const NodeView view(options);
    if (!view.complete())
        globals.outcome = ExitCode::node;
    if (globals.json)
        return print_json(json_of(view));
    print_view(view, globals.colored());
    if (!view.complete())
        remark(globals, "something is missing; \"easctl doctor --node-only\" says what to do");
}

}  // namespace

void add_info_command(CLI::App& node, Globals& globals) {
    CLI::App& command = add_command(
        node, "info",
        "what this node has: which source serves for each figure, which were tried, and\n"
        "how frequencies are set. 6 when a figure or the frequency control is missing",
        "easctl node info\neasctl node info --json\n"
        "easctl node info --energy powercap,hwmon");
    const auto options = std::make_shared<MeterOptions>();
    options->add_to(command);
    set_action(command, [options, &globals] { run_info(*options, globals); });
}

}  // namespace easctl
