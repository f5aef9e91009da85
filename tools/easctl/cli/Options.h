// The options of commands, in front of the option parser. Only the room cli/ includes the parser's
// headers, which cost seconds in every file; the other rooms know its types by name.
//
// A value that an option fills must outlive the command's run. Handles are copied freely; they are
// valid as long as the command.
#pragma once

#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
class Validator;
}  // namespace CLI

namespace easctl {

/// What the value of an option must be, or how its text is rewritten before it is converted.
class Check {
  public:
    /// `check` gets the text, may rewrite it, and returns what is wrong with it; empty: all is
    /// well.
    explicit Check(std::function<std::string(std::string&)> check);
    explicit Check(std::shared_ptr<const CLI::Validator> validator);
    [[nodiscard]] const CLI::Validator& validator() const { return *validator_; }

  private:
    std::shared_ptr<const CLI::Validator> validator_;
};

/// A text that is not empty, as a variable of a script is that was never set.
Check some_text();
/// A finite number of that range; the parser's own checks let "nan" pass.
Check number_from(double lowest, double highest = std::numeric_limits<double>::max());
Check whole_number_from(int lowest, int highest);
/// A number above 0.
Check positive_number();
Check one_of(const std::vector<std::string>& words);

class Option {
  public:
    explicit Option(CLI::Option& option) : option_(&option) {}

    Option type_name(const std::string& name) const;
    Option required(bool is_required = true) const;
    Option check(const Check& check) const;
    /// Rewrites the text that was given; the checks see what comes of it.
    Option transform(const Check& check) const;
    Option excludes(const Option& other) const;
    /// Shows the value that the variable holds now as the default.
    Option show_default() const;
    /// Taken from this environment variable where it is not given.
    Option environment(const std::string& variable) const;
    /// Several values in one word, separated so.
    Option delimiter(char separator) const;
    /// Takes one value each time, so that a positional one may follow.
    Option one_value_each() const;

    [[nodiscard]] bool given() const;
    /// "--user".
    [[nodiscard]] std::string name() const;

  private:
    CLI::Option* option_;
};

/// Adds an option; `names` as "-o,--output", or one plain word for a positional one.
Option add_option(CLI::App& command, const std::string& names, std::string& value,
                  const std::string& description);
Option add_option(CLI::App& command, const std::string& names, int& value,
                  const std::string& description);
Option add_option(CLI::App& command, const std::string& names, double& value,
                  const std::string& description);
Option add_option(CLI::App& command, const std::string& names, std::vector<std::string>& value,
                  const std::string& description);
Option add_option(CLI::App& command, const std::string& names, std::vector<int>& value,
                  const std::string& description);
Option add_option(CLI::App& command, const std::string& names, const std::string& description,
                  std::function<void(const std::string&)> take);
Option add_flag(CLI::App& command, const std::string& names, bool& value,
                const std::string& description);
/// An option that `command` has.
Option option_of(CLI::App& command, const std::string& name);

enum class Format { table, csv };
/// Adds --format.
void add_format_option(CLI::App& command, Format& format);

/// Adds -o; `file` is empty where standard output is meant, which "-" names, too.
void add_output_option(CLI::App& command, std::string& file, const std::string& description);

}  // namespace easctl
