#include "node/meter/SiteCommand.h"

#include <array>
#include <charconv>

#include "base/Numbers.h"
#include "node/files/KeptFile.h"
#include "node/files/PseudoFile.h"
#include "node/meter/ChildProgram.h"
#include "node/meter/Integrator.h"

namespace eas::node {
namespace {

/// A unit, in small letters: what one of it is in W or J.
struct UnitRow {
    std::string_view name;
    bool joules;
    double factor;
};
constexpr UnitRow unit_rows[] = {
    {"w", false, 1},       // watts
    {"watt", false, 1},    //
    {"watts", false, 1},   //
    {"mw", false, 1e-3},   // milliwatts, not megawatts
    {"kw", false, 1e3},    // kilowatts
    {"j", true, 1},        // joules
    {"joule", true, 1},    //
    {"joules", true, 1},   //
    {"uj", true, 1e-6},    // microjoules
    {"kj", true, 1e3},     // kilojoules
    {"wh", true, 3600},    // watt hours
    {"kwh", true, 3.6e6},  // kilowatt hours
};

/// How tools that speak to a management controller name the power now.
constexpr std::string_view power_lines[] = {
    "Instantaneous power reading",  // ipmitool dcmi power reading
    "Current Power",                // ipmi-dcmi --get-system-power-statistics
};

// No node draws more.
constexpr double most_watts = 1e6;

const UnitRow* find_unit(std::string_view name) {
    for (const UnitRow& row : unit_rows) {
        bool same = name.size() == row.name.size();
        for (std::size_t i = 0; same && i < name.size(); ++i)
            same = to_lower(name[i]) == row.name[i];
        if (same)
            return &row;
    }
    return nullptr;
}

/// A number and its unit, nothing else.
std::optional<double> parse_quantity(std::string_view text, bool joules) {
    text = trimmed(text);
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{})
        return std::nullopt;
    const std::string_view unit = trimmed({rest, static_cast<std::size_t>(end - rest)});
    if (!unit.empty()) {
        const UnitRow* const row = find_unit(unit);
        if (row == nullptr || row->joules != joules)
            return std::nullopt;
        value *= row->factor;
    }
    const bool usable = joules ? value >= 0 && value < 1e18 : value > 0 && value < most_watts;
    return usable ? std::optional(value) : std::nullopt;
}

/// Watts from the line of a known tool.
std::optional<double> parse_power_line(std::string_view output) {
    while (!output.empty()) {
        const std::size_t end = std::min(output.find('\n'), output.size());
        const std::string_view line = output.substr(0, end);
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos)
            for (const std::string_view name : power_lines)
                if (trimmed(line.substr(0, colon)) == name)
                    return parse_quantity(line.substr(colon + 1), false);
        output.remove_prefix(std::min(end + 1, output.size()));
    }
    return std::nullopt;
}

class SiteCommand : public Source {
  public:
    explicit SiteCommand(const Request& request)
        : program_(request.command, request.command_limit), joules_(request.command_gives_joules) {}

    bool open(std::string& reason) {
        coverage_ = {EASNODE_NODE, joules_ ? "the site's energy command" : power_command,
                     joules_ ? 0 : longest_gap};
        const auto value = ask(reason);
        if (value && joules_)
            first_ = last_ = *value;
        else if (value)
            integral_.start(monotonic_now(), *value);
        return value.has_value();
    }

    void read(Nanoseconds, Result& result) override {
        std::string reason;
        const auto value = ask(reason);
        if (!value)
            result.end(reason);
        else if (joules_)
            take_joules(*value, result);
        else
            take_watts(*value, result);
    }

  private:
    static constexpr const char* power_command = "the site's power command";

    std::optional<double> ask(std::string& reason) {
        std::string output;
        if (!program_.run(output, reason))
            return std::nullopt;
        const auto value = parse_command_output(output, joules_);
        if (!value)
            reason = "the site's command says " + quoted(trimmed(output));
        return value;
    }

    void take_joules(double value, Result& result) {
        if (value < last_)
            result.end("the energy of the site's command went backwards");
        last_ = value;
        result.values[0] = last_ - first_;
    }

    // The command may take a second: its end is nearer to the time of its reading.
    void take_watts(double value, Result& result) {
        if (!integral_.add(monotonic_now(), value))
            result.end("not read for more than a minute: nobody knows the power meanwhile");
        result.quality = EASNODE_INTEGRATED;
        result.values[0] = integral_.joules();
        coverage_.words = integral_.words(power_command);
    }

    ChildProgram program_;
    bool joules_;
    double first_ = 0;
    double last_ = 0;
    Integrator integral_;
};

}  // namespace

std::optional<double> parse_command_output(std::string_view output, bool joules) {
    const auto value = parse_quantity(output, joules);
    return value || joules ? value : parse_power_line(output);
}

std::unique_ptr<Source> open_site_command(const Request& request, std::string& reason) {
    if (request.command.empty()) {
        reason = "no command was given";
        return nullptr;
    }
    auto source = std::make_unique<SiteCommand>(request);
    return source->open(reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
