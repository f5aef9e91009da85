// The commands of easctl and their options as plain data, read off the parser's own definitions:
// what completion and the manual page are made of, so that they cannot differ from --help.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class FormatterBase;
}  // namespace CLI

namespace easctl {

struct OptionEntry {
    std::vector<std::string> names;    ///< with their dashes; a positional has its one plain name
    std::string value;                 ///< what it takes; empty for a flag
    std::vector<std::string> choices;  ///< the only values it takes, where they are listed
    std::string text;                  ///< one line
    std::string without;               ///< what happens without it: "(required)", "(default: all)"
    bool positional = false;
};

struct CommandEntry {
    std::string name;  ///< "" for easctl itself, "db init" for a command of a group
    std::string text;  ///< one line
    std::vector<std::string> examples;  ///< command lines
    std::vector<OptionEntry> options;   ///< its own; those of the whole tool are easctl's
    std::vector<CommandEntry> commands;
};

/// The tree below `app`, without what is hidden from --help.
CommandEntry command_tree(const CLI::App& app);

/// Prints what a shell ("bash", "zsh") reads to complete easctl's command line.
std::string completion_script(const CommandEntry& root, const std::string& shell);
/// The sections of the manual page (mdoc) that describe options and commands.
std::string manual_sections(const CommandEntry& root);

/// Shows options under --help in plain words, without the parser's names of types.
std::shared_ptr<CLI::FormatterBase> plain_formatter();

/// Adds the hidden command "completion", which prints one of these.
void add_completion_command(CLI::App& app);

}  // namespace easctl
