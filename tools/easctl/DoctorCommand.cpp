// easctl doctor: which link of the chain is broken, what that means, and the command that mends it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "base/UniqueFd.h"
#include "tools/easctl/Command.h"
#include "tools/easctl/Doctor.h"
#include "tools/easctl/Library.h"

namespace easctl {
namespace {

struct Shown {
    const char* text;
    Style style;
};

Shown shown(LinkStatus status) {
    switch (status) {
        case LinkStatus::ok:
            return {"ok", Style::good};
        case LinkStatus::warning:
            return {"warning", Style::warning};
        case LinkStatus::missing:
            return {"missing", Style::bad};
        case LinkStatus::denied:
            return {"denied", Style::bad};
        case LinkStatus::wrong:
            return {"wrong", Style::bad};
        case LinkStatus::skipped:
            return {"skipped", Style::faint};
    }
    return {"", Style::plain};
}

}  // namespace

const char* name_of(LinkStatus status) noexcept {
    return shown(status).text;
}

bool is_broken(const Link& link) {
    return link.status == LinkStatus::missing || link.status == LinkStatus::denied ||
           link.status == LinkStatus::wrong;
}

bool holds(const Link& link) {
    return !is_broken(link) && link.status != LinkStatus::skipped;
}

std::string text_of(const std::vector<Link>& links, bool colored) {
    std::string out;
    for (const Link& link : links) {
        const auto [text, style] = shown(link.status);
        std::string status(text);
        status.resize(8, ' ');
        out += paint(status, style, colored) + printable(link.name) + ": " + printable(link.found) +
               '\n';
        if (!link.meaning.empty())
            out += "          that means: " + printable(link.meaning) + '\n';
        if (!link.remedy.empty())
            out += "          what to do: " + printable(link.remedy) + '\n';
    }
    return out;
}

Json json_of(const std::vector<Link>& links) {
    Json list = Json::array();
    for (const Link& link : links) {
        Json one{{"name", link.name}, {"status", shown(link.status).text}, {"found", link.found}};
        if (!link.meaning.empty())
            one["meaning"] = link.meaning;
        if (!link.remedy.empty())
            one["remedy"] = link.remedy;
        list.push_back(std::move(one));
    }
    return {{"ok", std::all_of(links.begin(), links.end(), holds)}, {"links", list}};
}

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
    if (options.node || options.node_only) {
        for (Link& link : examine_node(model))
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

LinkStatus status_of(int error) {
    return error == EACCES || error == EPERM ? LinkStatus::denied : LinkStatus::missing;
}

std::optional<std::string> first_line(const std::string& path) {
    const eas::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> text{};
    const ssize_t length = file.is_open() ? ::read(file.get(), text.data(), text.size()) : -1;
    if (length < 0)
        return std::nullopt;
    std::string line(text.data(), static_cast<std::size_t>(length));
    line.erase(std::min(line.find('\n'), line.size()));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    return line;
}

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
    command
        .add_option("--cluster", options->cluster,
                    "whose coefficients (default: the only one with a model)")
        ->check(some_text())
        ->type_name("NAME");
    command
        .add_option("--default-frequency", options->default_khz,
                    "which, where the cluster has several")
        ->check(CLI::PositiveNumber)
        ->type_name("KHZ");
    add_thresholds_option(command, options->thresholds);
    command.add_flag("--node", options->node, "also the hardware of this machine");
    command.add_flag("--node-only", options->node_only, "only the hardware of this machine");
    command.callback([options, &globals] { examine(*options, globals); });
}

}  // namespace easctl
