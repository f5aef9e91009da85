// easctl node: what the node's hardware says, for a person. What cannot be read is shown as missing
// or denied, never as 0.
#include "tools/easctl/node/NodeCommands.h"

#include <algorithm>
#include <map>
#include <memory>

#include "common/node/EnergyUtil.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/node/CpuList.h"
#include "tools/easctl/node/FrequencyControl.h"
#include "tools/easctl/node/NodeLinks.h"

namespace easctl {
namespace {

// ---- info ----

std::string nominal_text() {
    const int khz = EnergyUtil::get_nominal_freq(0);
    return khz > 0 ? std::to_string(khz) + " kHz" : "missing (needs /dev/cpu/0/msr)";
}

std::string frequencies_text() {
    std::vector<int> table;
    if (EnergyUtil::get_available_freqs(table, 0) != 1)
        return "missing (the driver has no list)";
    std::string text;
    for (const int khz : table)
        text += (text.empty() ? "" : ", ") + std::to_string(khz);
    return text + " kHz";
}

Json info_json(const std::vector<Link>& links) {
    Json json = json_of(links);
    const int nominal = EnergyUtil::get_nominal_freq(0);
    json["nominal_khz"] = nominal > 0 ? Json(nominal) : Json(nullptr);
    std::vector<int> table;
    EnergyUtil::get_available_freqs(table, 0);
    json["available_khz"] = table;
    json["cpus"] = all_cpus();
    return json;
}

void run_info(Globals& globals) {
    const std::vector<Link> links = examine_node(node_links);
    if (std::any_of(links.begin(), links.end(), is_broken))
        globals.outcome = ExitCode::node;
    if (globals.json)
        return print_json(info_json(links));
    print(text_of(links, globals.colored()));
    print("\nCPUs                   " + cpu_text(all_cpus()) + "\nnominal frequency      " +
          nominal_text() + "\navailable frequencies  " + frequencies_text() + '\n');
}

// ---- frequency ----

struct FrequencyOptions {
    std::string cpus = "all";
    std::string governor;
    int khz = 0;
};

/// What is set for one or more CPUs; 0 and empty: no reading.
struct FrequencyState {
    std::string governor, driver;
    int present = 0, lowest = 0, highest = 0;

    static FrequencyState of(int cpu) {
        const auto limit = [cpu](const char* file) {
            return std::max(0, std::atoi(read_cpufreq(cpu, file).c_str()));
        };
        return {read_cpufreq(cpu, "scaling_governor"), frequency_driver(cpu),
                std::max(0, EnergyUtil::get_current_frequency(cpu)), limit("scaling_min_freq"),
                limit("scaling_max_freq")};
    }
    bool operator<(const FrequencyState& other) const {
        return std::tie(present, governor, driver, lowest, highest) <
               std::tie(other.present, other.governor, other.driver, other.lowest, other.highest);
    }
};

void show_frequencies(const std::vector<int>& cpus, const Globals& globals) {
    std::map<FrequencyState, std::vector<int>> groups;
    for (const int cpu : cpus)
        groups[FrequencyState::of(cpu)].push_back(cpu);
    Table table({{"CPUs"},
                 {"kHz", Align::right},
                 {"governor"},
                 {"lowest", Align::right},
                 {"highest", Align::right},
                 {"driver"}});
    Json json = Json::array();
    const auto cell = [](const std::string& text) {
        return text.empty() || text == "0" ? Cell("missing", Style::bad) : Cell(text);
    };
    const auto value = [](int khz) { return khz > 0 ? Json(khz) : Json(nullptr); };
    for (const auto& [state, members] : groups) {
        table.add({cpu_text(members), cell(std::to_string(state.present)), cell(state.governor),
                   cell(std::to_string(state.lowest)), cell(std::to_string(state.highest)),
                   state.driver});
        json.push_back({{"cpus", members},
                        {"frequency_khz", value(state.present)},
                        {"governor", state.governor.empty() ? Json(nullptr) : Json(state.governor)},
                        {"lowest_khz", value(state.lowest)},
                        {"highest_khz", value(state.highest)},
                        {"driver", state.driver}});
    }
    if (globals.json)
        print_json({{"cpu_groups", std::move(json)}});
    else
        print(table.text(globals.colored()));
}

/// All of it, or none.
void change(const std::vector<int>& cpus, const FrequencyOptions& options) {
    FrequencyGuard guard(cpus);
    try {
        if (options.khz > 0)
            set_frequency(cpus, options.khz);
        else
            set_governor(cpus, options.governor);
    } catch (Failure& failure) {
        failure.message += guard.give_back() ? "; governor and frequency are as before"
                                             : "; what was set could not be given back: see "
                                               "\"easctl node frequency\"";
        throw;
    }
    guard.keep();
}

void run_frequency(const FrequencyOptions& options, Globals& globals) {
    const std::vector<int> cpus = parse_cpus(options.cpus);
    if (options.khz > 0 || !options.governor.empty())
        change(cpus, options);
    show_frequencies(cpus, globals);
    for (const Link& link : examine_node(frequency_links)) {
        if (!is_broken(link))
            continue;
        globals.outcome = ExitCode::node;
        remark(globals, trouble_of(link));
    }
}

void add_frequency_command(CLI::App& node, Globals& globals) {
    CLI::App& command =
        add_command(node, "frequency", "shows or sets processor frequencies and governors",
                    "easctl node frequency\n"
                    "easctl node frequency --set 1800000 --cpu 0-7\n"
                    "easctl node frequency --governor ondemand");
    const auto options = std::make_shared<FrequencyOptions>();
    const Option set =
        add_option(command, "--set", options->khz, "fixes the frequency, and reads it back")
            .check(whole_number_from(1, 999999999))
            .type_name("KHZ");
    add_option(command, "--governor", options->governor, "lets the kernel choose by this governor")
        .excludes(set)
        .check(some_text())
        .type_name("NAME");
    add_option(command, "--cpu", options->cpus, "which CPUs, as 0-7,16-23, or all")
        .show_default()
        .type_name("CPUS");
    set_action(command, [options, &globals] { run_frequency(*options, globals); });
}

}  // namespace

void add_node_commands(CLI::App& app, Globals& globals) {
    CLI::App& node = add_group(app, "node", "this node's hardware: what it is, says and does");
    set_action(
        add_command(node, "info", "what this node has, and which module or privilege is missing",
                    "easctl node info\neasctl node info --json"),
        [&globals] { run_info(globals); });
    add_sensors_command(node, globals);
    add_sample_command(node, globals);
    add_frequency_command(node, globals);
}

}  // namespace easctl
