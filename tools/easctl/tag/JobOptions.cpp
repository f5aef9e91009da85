#include "tools/easctl/tag/JobOptions.h"

#include <algorithm>
#include <climits>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {

JobOptions::JobOptions(CLI::App& command, std::string& file, const std::string& description)
    : command_(&command),
      file_(add_option(command, "--jobs", file, description).type_name("FILE")) {}

bool JobOptions::has_optional() const {
    return std::any_of(optional_.begin(), optional_.end(),
                       [](const Option& option) { return option.given(); });
}

bool JobOptions::describe_one() const {
    if (file_.given()) {
        refuse_beside_file();
        return false;
    }
    require(needed_);
    if (has_optional())
        require(optional_);
    return true;
}

void JobOptions::refuse_beside_file() const {
    for (const auto* options : {&needed_, &optional_}) {
        for (const Option& option : *options) {
            if (option.given())
                throw Failure(ExitCode::usage, option.name() + " and --jobs exclude each other",
                              "the jobs file names them in a column");
        }
    }
}

void JobOptions::require(const std::vector<Option>& options) {
    std::vector<std::string> missing;
    for (const Option& option : options) {
        if (!option.given())
            missing.push_back(option.name());
    }
    if (!missing.empty())
        throw Failure(ExitCode::usage, "missing: " + joined(missing),
                      "give all options of the job, or --jobs FILE for many jobs");
}

Check whole_seconds() {
    return Check([](std::string& text) {
        const double seconds = parse_number(text).value_or(0.0);
        if (seconds >= 1.0 && seconds <= INT_MAX)
            text = std::to_string(static_cast<int>(seconds));
        return std::string();  // the check and the conversion say what is wrong
    });
}

}  // namespace easctl
