// easctl doctor: which link of the chain is broken, what that means, and the command that mends it.
#include <algorithm>
#include <memory>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/doctor/DatabaseLinks.h"
#include "tools/easctl/doctor/TagLinks.h"
#include "tools/easctl/node/NodeLinks.h"
#include "tools/easctl/tag/Library.h"

namespace easctl {
namespace {

std::string conclusion(const std::vector<Link>& links) {
    const auto broken = std::count_if(links.begin(), links.end(), is_broken);
    const auto skipped = static_cast<std::ptrdiff_t>(links.size()) - broken -
                         std::count_if(links.begin(), links.end(), holds);
    if (broken + skipped == 0)
        return "\nthe chain holds\n";
    const std::string all = " of " + std::to_string(links.size()) + " links ";
    std::string text = "\n" + std::to_string(broken > 0 ? broken : skipped) + all;
    if (broken > 0)
        text += broken == 1 ? "is broken" : "are broken";
    if (broken > 0 && skipped > 0)
        text += "; " + std::to_string(skipped) + ' ';
    if (skipped > 0)
        text += "could not be looked at";
    return text + '\n';
}

void examine(const DoctorOptions& options, Globals& globals) {
    CoEfficients model;
    std::vector<Link> links;
    if (!options.node_only)
        links = examine_database(options, model);
    if (options.runs.given())
        links.push_back(identified(LinkId::drift, drift_of_tags(options.runs, globals)));
    if (options.node || options.node_only) {
        for (Link& link : examine_whole_node(model))
            links.push_back(std::move(link));
    }
    if (!std::all_of(links.begin(), links.end(), holds))
        globals.outcome = ExitCode::found;
    if (globals.json) {
        print_json(json_of(links));
        return;
    }
    print(text_of(links, globals.colored()));
    print(conclusion(links));
}

}  // namespace

void add_doctor_command(CLI::App& app, Globals& globals) {
    const auto options = std::make_shared<DoctorOptions>();
    CLI::App& command = add_command(
        app, "doctor",
        "Walks the chain from the locator file to the coefficients, and on a node to the\n"
        "hardware; says of each link whether it holds, and if not what that means and\n"
        "what to do. Changes nothing.",
        "easctl doctor\n"
        "easctl doctor --cluster sample --thresholds /etc/eas/thresholds.conf\n"
        "easctl doctor --node --json >ticket.json");
    options->database.add_to(command);
    add_option(command, "--cluster", options->cluster,
               "whose coefficients (default: the only one with a model)")
        .check(some_text())
        .type_name("NAME");
    add_option(command, "--default-frequency", options->default_khz,
               "which, where the cluster has several")
        .check(positive_number())
        .type_name("KHZ");
    add_thresholds_option(command, options->thresholds);
    options->runs.add_to(command, "--runs");
    add_flag(command, "--node", options->node, "also the hardware of this machine");
    add_flag(command, "--node-only", options->node_only, "only the hardware of this machine");
    set_action(command, [options, &globals] { examine(*options, globals); });
}

}  // namespace easctl
