// What every command of easctl shares: the options of the whole tool, and how a command is added.
//
// A command prints its result on standard output and everything else on standard error; it ends by
// returning (its exit code is then Globals::outcome) or by throwing Failure. With --json standard
// output holds one JSON document: the result, or {"error": {...}} of a Failure. A Failure therefore
// leaves a command before its document is printed.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "tools/easctl/cli/CommandLine.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/Options.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {

struct Globals {
    bool json = false;
    ColorMode color = ColorMode::automatic;
    bool quiet = false;
    ExitCode outcome = ExitCode::ok;  ///< of a command that ran to its end

    [[nodiscard]] bool colored() const { return color_wanted(color); }
};

/// The values in their order, each once.
template <typename Value>
std::vector<Value> each_once(const std::vector<Value>& values) {
    std::vector<Value> once;
    for (const Value& value : values) {
        if (std::find(once.begin(), once.end(), value) == once.end())
            once.push_back(value);
    }
    return once;
}

/// Says what went wrong, and what to do, on standard error.
void complain(const Failure& failure);
/// Prints a remark on standard error, unless the user wants quiet.
void remark(const Globals& globals, const std::string& text);

/// Asks on the terminal, whatever the standard streams are. Throws Failure unless the answer is
/// yes, and where nobody can be asked.
void require_yes(const std::string& question);

void add_db_commands(CLI::App& app, Globals& globals);
/// Returns the group "model", to which fit and calibrate belong as well.
CLI::App& add_model_commands(CLI::App& app, Globals& globals);
void add_threshold_commands(CLI::App& app, Globals& globals);
void add_doctor_command(CLI::App& app, Globals& globals);
void add_fit_command(CLI::App& model, Globals& globals);
void add_calibrate_command(CLI::App& model, Globals& globals);
void add_node_commands(CLI::App& app, Globals& globals);
void add_job_commands(CLI::App& app, Globals& globals);
void add_tag_commands(CLI::App& app, Globals& globals);
void add_simulate_command(CLI::App& app, Globals& globals);

}  // namespace easctl
