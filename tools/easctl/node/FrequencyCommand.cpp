// easctl node frequency: shows or sets processor frequencies and governors.
#include <map>
#include <memory>
#include <tuple>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/node/CpuList.h"
#include "tools/easctl/node/FrequencyControl.h"
#include "tools/easctl/node/NodeCommands.h"
#include "tools/easctl/node/NodeLinks.h"

namespace easctl {
namespace {

struct FrequencyOptions {
    std::string cpus = "all";
    std::string governor;
    int khz = 0;
};

/// What is set for one or more CPUs.
struct Setting {
    int khz;  // kHz; 0 and below: no value, as the next two
    int lowest, highest;
    std::string governor;

    bool operator<(const Setting& other) const {
        return std::tie(khz, governor, lowest, highest) <
               std::tie(other.khz, other.governor, other.lowest, other.highest);
    }
};

Json json_of(const Setting& setting, const std::vector<int>& cpus, const std::string& driver) {
    const auto value = [](int khz) { return khz > 0 ? Json(khz) : Json(nullptr); };
    const auto text = [](const std::string& one) {
        return one.empty() ? Json(nullptr) : Json(one);
    };
    return {{"cpus", cpus},
            {"frequency_khz", value(setting.khz)},
            {"governor", text(setting.governor)},
            {"lowest_khz", value(setting.lowest)},
            {"highest_khz", value(setting.highest)},
            {"driver", text(driver)}};
}

std::vector<Cell> cells_of(const Setting& setting, const std::vector<int>& cpus,
                           const std::string& driver) {
    const auto value = [](int khz) {
        return khz > 0 ? Cell(std::to_string(khz)) : Cell("missing", Style::bad);
    };
    return {cpu_text(cpus),        value(setting.khz),     setting.governor,
            value(setting.lowest), value(setting.highest), driver};
}

void show(const NodeFrequency& frequency, const Globals& globals) {
    std::map<Setting, std::vector<int>> groups;
    for (const easnode_cpu_frequency& row : frequency.rows())
        groups[{row.current_khz, row.min_khz, row.max_khz, row.governor}].push_back(row.cpu);
    const std::string driver = frequency.info().driver;
    Table table({{"CPUs"},
                 {"kHz", Align::right},
                 {"governor"},
                 {"lowest", Align::right},
                 {"highest", Align::right},
                 {"driver"}});
    Json json = Json::array();
    for (const auto& [setting, cpus] : groups) {
        table.add(cells_of(setting, cpus, driver));
        json.push_back(json_of(setting, cpus, driver));
    }
    if (globals.json)
        print_json({{"cpu_groups", std::move(json)}});
    else
        print(table.text(globals.colored()));
}

/// All of it, or none.
void change(NodeFrequency& frequency, const std::vector<int>& cpus,
            const FrequencyOptions& options) {
    FrequencyGuard guard(frequency, options.khz);
    try {
        if (options.khz > 0)
            frequency.set(options.khz);
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
    NodeFrequency frequency(cpus);
    if (options.khz > 0 || !options.governor.empty())
        change(frequency, cpus, options);
    show(frequency, globals);
    const Link link = examine_node(LinkId::frequency_control);
    if (!is_broken(link))
        return;
    globals.outcome = ExitCode::node;
    remark(globals, trouble_of(link));
}

}  // namespace

void add_frequency_command(CLI::App& node, Globals& globals) {
    CLI::App& command =
        add_command(node, "frequency", "shows or sets processor frequencies and governors",
                    "easctl node frequency\n"
                    "easctl node frequency --set 1800000 --cpu 0-7\n"
                    "easctl node frequency --governor ondemand");
    const auto options = std::make_shared<FrequencyOptions>();
    const Option set =
        add_option(command, "--set", options->khz,
                   "fixes the frequency, with whatever driver there is, and reads it back")
            .check(whole_number_from(1, 999999999))
            .type_name("KHZ");
    add_option(command, "--governor", options->governor, "lets the kernel choose by this governor")
        .excludes(set)
        .check(some_text())
        .type_name("NAME");
    add_option(command, "--cpu", options->cpus,
               "which CPUs, as 0-7,16-23, or all; those that share a clock with them are set, too")
        .show_default()
        .type_name("CPUS");
    set_action(command, [options, &globals] { run_frequency(*options, globals); });
}

}  // namespace easctl
