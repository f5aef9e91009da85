#include "tools/easctl/cli/CommandTree.h"

#include <CLI/CLI.hpp>
#include <sstream>

#include "tools/easctl/cli/CommandLine.h"
#include "tools/easctl/cli/Options.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

std::string one_line(const std::string& text) {
    std::istringstream words(text);
    std::string line;
    for (std::string word; words >> word;)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

/// The items of "{a,b,c}" in the description of a type.
std::vector<std::string> choices_of(const std::string& type) {
    const std::size_t open = type.find('{');
    const std::size_t close = type.find('}', open == std::string::npos ? 0 : open);
    std::vector<std::string> choices;
    if (open == std::string::npos || close == std::string::npos)
        return choices;
    std::istringstream list(type.substr(open + 1, close - open - 1));
    for (std::string item; std::getline(list, item, ',');)
        choices.push_back(item.substr(0, item.find("->")));
    return choices;
}

/// What an option takes, in a word; empty for a flag.
std::string value_of(const CLI::Option& option) {
    if (option.get_items_expected_max() == 0)
        return {};
    const std::string type = option.get_type_name();
    const std::string word = type.substr(0, type.find_first_of(":{"));
    if (word.empty())
        return "VALUE";
    return word == "FLOAT" || word == "INT" || word == "UINT" ? "NUMBER" : word;
}

/// That an option must be given, or what holds where it is not.
std::string without(const CLI::Option& option, bool positional) {
    std::string text;
    if (option.get_required() && !positional)
        text = " (required)";
    if (!option.get_default_str().empty())
        text += " (default: " + option.get_default_str() + ')';
    return text;
}

class PlainFormatter : public CLI::Formatter {
  public:
    std::string make_option_opts(const CLI::Option* option) const override {
        const bool positional = option->get_positional() && !option->nonpositional();
        std::string text;
        for (const std::string& choice : choices_of(option->get_type_name()))
            text += (text.empty() ? " " : "|") + choice;
        if (text.empty() && !positional && !value_of(*option).empty())
            text = ' ' + value_of(*option);
        text += without(*option, positional);
        if (!option->get_envname().empty())
            text += " (or $" + option->get_envname() + ')';
        return text;
    }
};

OptionEntry entry_of(const CLI::Option& option) {
    OptionEntry entry;
    entry.positional = option.get_positional() && !option.nonpositional();
    if (entry.positional)
        entry.names.push_back(option.get_name());
    for (const std::string& name : option.get_snames())
        entry.names.push_back('-' + name);
    for (const std::string& name : option.get_lnames())
        entry.names.push_back("--" + name);
    const std::string type = option.get_type_name();
    entry.value = value_of(option);
    entry.choices = choices_of(type);
    entry.text = one_line(option.get_description());
    entry.without = without(option, entry.positional);
    if (!option.get_envname().empty())
        entry.text += " (else from the environment: " + option.get_envname() + ')';
    return entry;
}

/// The lines between "Examples:" and the next empty one.
std::vector<std::string> examples_of(const std::string& footer) {
    std::istringstream lines(footer);
    std::vector<std::string> examples;
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (inside && line.empty())
            break;
        if (inside)
            examples.push_back(line.substr(std::min(line.size(), line.find_first_not_of(' '))));
        inside = inside || line == "Examples:";
    }
    return examples;
}

void collect(const CLI::App& app, const std::string& name, CommandEntry& entry) {
    for (const CLI::Option* option : app.get_options()) {
        if (!option->get_group().empty())
            entry.options.push_back(entry_of(*option));
    }
    for (const CLI::App* child : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (child->get_group().empty())
            continue;
        if (child->get_name().empty()) {  // a group of options is an App without a name
            collect(*child, name, entry);
            continue;
        }
        const std::string path = (name.empty() ? "" : name + ' ') + child->get_name();
        entry.commands.push_back(
            {path, one_line(child->get_description()), examples_of(child->get_footer()), {}, {}});
        collect(*child, path, entry.commands.back());
    }
}

}  // namespace

std::shared_ptr<CLI::FormatterBase> plain_formatter() {
    return std::make_shared<PlainFormatter>();
}

CommandEntry command_tree(const CLI::App& app) {
    CommandEntry root{"", one_line(app.get_description()), {}, {}, {}};
    collect(app, "", root);
    return root;
}

void add_completion_command(CLI::App& app) {
    const auto format = std::make_shared<std::string>();
    CLI::App& command = add_command(app, "completion", "what a shell needs to complete easctl", "");
    command.group("");
    add_option(command, "FORMAT", *format, "bash, zsh, or mdoc for the manual page's sections")
        .required()
        .check(one_of({"bash", "zsh", "mdoc"}));
    set_action(command, [&app, format] {
        const CommandEntry root = command_tree(app);
        print(*format == "mdoc" ? manual_sections(root) : completion_script(root, *format));
    });
}

}  // namespace easctl
