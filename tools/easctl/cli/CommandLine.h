// The command line as a whole, in front of the option parser: what is run, and the commands there
// are. What a command takes is Options.h.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace CLI {
class App;
}  // namespace CLI

namespace easctl {

/// Adds a command below `parent`. `examples`: one command line per line, shown under --help.
CLI::App& add_command(CLI::App& parent, const std::string& name, const std::string& description,
                      const std::string& examples);
/// Adds a group of commands, one of which must be given.
CLI::App& add_group(CLI::App& parent, const std::string& name, const std::string& description);
/// What the command does when it is given.
void set_action(CLI::App& command, std::function<void()> action);

/// The program itself, of which one command must be given; owns all commands.
class CommandLine {
  public:
    /// `version`: what --version prints; `footer`: the last lines of --help.
    CommandLine(const std::string& name, const std::string& description, const std::string& version,
                const std::string& footer);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    [[nodiscard]] CLI::App& root() { return *root_; }
    /// Runs the command that is given, or prints the help or version that is asked for. Throws
    /// Failure when the words are no command line; whatever a command throws passes.
    void run(int argc, char** argv);

  private:
    std::unique_ptr<CLI::App> root_;
};

}  // namespace easctl
