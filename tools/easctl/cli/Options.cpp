#include "tools/easctl/cli/Options.h"

#include <CLI/CLI.hpp>
#include <map>
#include <optional>
#include <utility>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

/// A check that leaves the text as it is.
Check test_of(std::function<std::string(const std::string&)> test) {
    return Check([test = std::move(test)](std::string& text) { return test(text); });
}

Check check_of(CLI::Validator validator) {
    return Check(std::make_shared<const CLI::Validator>(std::move(validator)));
}

}  // namespace

Check::Check(std::function<std::string(std::string&)> check)
    : validator_(std::make_shared<const CLI::Validator>(std::move(check), "")) {}

Check::Check(std::shared_ptr<const CLI::Validator> validator) : validator_(std::move(validator)) {}

Check some_text() {
    return test_of([](const std::string& text) {
        return text.empty() ? std::string("must not be empty") : std::string();
    });
}

Check number_from(double lowest, double highest) {
    const bool bounded = highest < std::numeric_limits<double>::max();
    const std::string range = bounded ? "from " + exact(lowest) + " to " + exact(highest)
                                      : "of " + exact(lowest) + " or more";
    return test_of([=](const std::string& text) {
        const std::optional<double> value = parse_number(text);
        return value && *value >= lowest && *value <= highest ? std::string()
                                                              : text + " is not a number " + range;
    });
}

Check whole_number_from(int lowest, int highest) {
    return check_of(CLI::Range(lowest, highest));
}

Check positive_number() {
    return test_of([](const std::string& text) {
        const std::optional<double> value = parse_number(text);
        return value && *value > 0.0 ? std::string() : text + " is no number above 0";
    });
}

Check one_of(const std::vector<std::string>& words) {
    return check_of(CLI::IsMember(words));
}

Option Option::type_name(const std::string& name) const {
    option_->type_name(name);
    return *this;
}

Option Option::required(bool is_required) const {
    option_->required(is_required);
    return *this;
}

Option Option::check(const Check& check) const {
    option_->check(check.validator());
    return *this;
}

Option Option::transform(const Check& check) const {
    option_->transform(check.validator());
    return *this;
}

Option Option::excludes(const Option& other) const {
    option_->excludes(other.option_);
    return *this;
}

Option Option::show_default() const {
    option_->capture_default_str();
    return *this;
}

Option Option::environment(const std::string& variable) const {
    option_->envname(variable);
    return *this;
}

Option Option::delimiter(char separator) const {
    option_->delimiter(separator);
    return *this;
}

Option Option::one_value_each() const {
    option_->allow_extra_args(false);
    return *this;
}

bool Option::given() const {
    return option_->count() > 0;
}

std::string Option::name() const {
    return option_->get_name();
}

Option add_option(CLI::App& command, const std::string& names, std::string& value,
                  const std::string& description) {
    return Option(*command.add_option(names, value, description));
}

Option add_option(CLI::App& command, const std::string& names, int& value,
                  const std::string& description) {
    return Option(*command.add_option(names, value, description));
}

Option add_option(CLI::App& command, const std::string& names, double& value,
                  const std::string& description) {
    return Option(*command.add_option(names, value, description));
}

Option add_option(CLI::App& command, const std::string& names, std::vector<std::string>& value,
                  const std::string& description) {
    return Option(*command.add_option(names, value, description));
}

Option add_option(CLI::App& command, const std::string& names, std::vector<int>& value,
                  const std::string& description) {
    return Option(*command.add_option(names, value, description));
}

Option add_option(CLI::App& command, const std::string& names, const std::string& description,
                  std::function<void(const std::string&)> take) {
    return Option(*command.add_option_function<std::string>(names, take, description));
}

Option add_flag(CLI::App& command, const std::string& names, bool& value,
                const std::string& description) {
    return Option(*command.add_flag(names, value, description));
}

Option option_of(CLI::App& command, const std::string& name) {
    return Option(*command.get_option(name));
}

void add_format_option(CLI::App& command, Format& format) {
    static const std::map<std::string, Format> formats{{"table", Format::table},
                                                       {"csv", Format::csv}};
    add_option(command, "--format", "table or csv",
               [&format](const std::string& name) { format = formats.at(name); })
        .check(one_of({"table", "csv"}))
        .type_name("FORMAT");
}

void add_output_option(CLI::App& command, std::string& file, const std::string& description) {
    add_option(command, "-o,--output", description, [&file](const std::string& name) {
        file = name == "-" ? "" : name;
    }).type_name("FILE");
}

}  // namespace easctl
