// The sections of the manual page that describe options and commands, in mdoc.
#include "tools/easctl/cli/CommandTree.h"

namespace easctl {
namespace {

/// Text as it is: a backslash is an escape, and a dot or quote at its start a request.
std::string literal(const std::string& text) {
    std::string result;
    for (const char c : text)
        result += c == '\\' ? std::string("\\e") : c == '-' ? "\\-" : std::string(1, c);
    const bool request = !text.empty() && (text.front() == '.' || text.front() == '\'');
    return (request ? "\\&" : "") + result;
}

/// Running text: mdoc wants each sentence on a line of its own.
std::string sentences(std::string text) {
    std::string lines;
    for (std::size_t end = 0; (end = text.find(". ")) != std::string::npos;) {
        lines += literal(text.substr(0, end + 1)) + '\n';
        text.erase(0, end + 2);
    }
    return lines + literal(text);
}

/// An argument of a macro: one that is called like a macro must not be taken for it.
std::string argument(const std::string& text) {
    std::string result = "\"\\&";
    for (const char c : literal(text))
        result += c == '"' ? std::string("\\(dq") : std::string(1, c);
    return result + '"';
}

/// "--dsn NAME" as "Fl -dsn Ar NAME".
std::string spelled(const OptionEntry& option) {
    std::string line;
    for (const std::string& name : option.names) {
        line += line.empty() ? "" : " , ";
        line += option.positional ? "Ar " + argument(name) : "Fl " + literal(name.substr(1));
    }
    if (!option.value.empty() && !option.positional)
        line += " Ar " + argument(option.value);
    return line;
}

/// The listed values that the text does not name.
std::string other_choices(const OptionEntry& option) {
    std::string list;
    bool named = true;
    for (const std::string& choice : option.choices) {
        list += (list.empty() ? "; one of " : ", ") + literal(choice);
        named = named && option.text.find(choice) != std::string::npos;
    }
    return named ? "" : list;
}

std::string option_list(const std::vector<OptionEntry>& options) {
    std::string items;
    for (const OptionEntry& option : options) {
        if (option.names.back() == "--help")
            continue;
        items += ".It " + spelled(option) + '\n' + sentences(option.text) + other_choices(option) +
                 literal(option.without) + '\n';
    }
    return items.empty() ? "" : ".Bl -tag -width Ds\n" + items + ".El\n";
}

std::string synopsis(const CommandEntry& command) {
    std::string line = ".Ss " + argument("easctl " + command.name);
    for (const OptionEntry& option : command.options) {
        if (option.positional)
            line += ' ' + argument(option.names.front());
    }
    return line + '\n';
}

std::string section(const CommandEntry& command) {
    std::string text;
    if (command.commands.empty()) {
        text = synopsis(command) + sentences(command.text) + '\n' + option_list(command.options);
        if (!command.examples.empty())
            text += ".Pp\n";
        for (const std::string& example : command.examples)
            text += ".Dl " + argument(example) + '\n';
    }
    for (const CommandEntry& child : command.commands)
        text += section(child);
    return text;
}

}  // namespace

std::string manual_sections(const CommandEntry& root) {
    std::string commands;
    for (const CommandEntry& command : root.commands)
        commands += section(command);
    return ".Sh OPTIONS\nThese may stand before a command or among its options.\n" +
           option_list(root.options) + ".Sh COMMANDS\n" + commands;
}

}  // namespace easctl
