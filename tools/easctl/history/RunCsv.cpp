#include "tools/easctl/history/RunCsv.h"

#include <array>

#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

using Text = std::string Run::*;
using Figure = std::optional<double> Run::*;

/// One of the two members is set.
struct Member {
    const char* name;
    Text text = nullptr;
    Figure figure = nullptr;
};

constexpr Member member(const char* name, Text text) {
    return {name, text, nullptr};
}
constexpr Member member(const char* name, Figure figure) {
    return {name, nullptr, figure};
}

// Those of a file of jobs bear the names that they have there.
constexpr std::array members{
    member("user", &Run::user),
    member("tag", &Run::tag),
    member("job_id", &Run::job),
    member("class", &Run::job_class),
    member("cluster", &Run::cluster),
    member("start", &Run::start),
    member("end", &Run::end),
    member("outcome", &Run::outcome),
    member("policy", &Run::policy),
    member("type", &Run::type),
    member("frequency_khz", &Run::frequency),
    member("default_frequency_khz", &Run::default_frequency),
    member("nodes", &Run::nodes),
    member("elapsed_s", &Run::seconds),
    member("energy_j", &Run::joules),
    member("spread", &Run::spread),
    member("meter", &Run::meter),
    member("cycles", &Run::cycles),
    member("instructions", &Run::instructions),
    member("memory_bytes", &Run::bytes),
    member("predicted_s", &Run::predicted_seconds),
    member("predicted_j", &Run::predicted_joules),
    member("default_s", &Run::default_seconds),
    member("default_j", &Run::default_joules),
    member("count", &Run::count),
    member("reason", &Run::reason),
};
constexpr const char* power_column = "power_w";

std::string csv_cell(const std::string& text) {
    // A line end would begin another row; no name of a user or tag needs one.
    const std::string shown = printable(text);
    if (shown.find_first_of(",\"#") == std::string::npos)
        return shown;
    std::string quoted = "\"";
    for (const char c : shown)
        quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

}  // namespace

bool is_run_csv_header(std::string_view line) {
    return ("," + std::string(line) + ",").find(",outcome,") != std::string::npos;
}

RunCsv::RunCsv(LineReader lines) : csv_(std::move(lines)) {
    for (const Member& one : members)
        places_.push_back(csv_.column(one.name));
    power_ = csv_.column(power_column);
}

RunForm::Step RunCsv::next(Run& run) {
    const CsvFile::Step step = csv_.next();
    if (step == CsvFile::Step::end)
        return Step::end;
    if (step == CsvFile::Step::row && take(run))
        return Step::run;
    if (step != CsvFile::Step::row)
        problem_ = csv_.problem();
    return Step::bad;
}

bool RunCsv::take_number(std::optional<std::size_t> place, const char* name,
                         std::optional<double>& figure) {
    if (!place || csv_.fields()[*place].empty())
        return true;
    figure = parse_number(csv_.fields()[*place]);
    if (figure && *figure >= 0.0)
        return true;
    problem_ = std::string(name) + ": \"" + std::string(csv_.fields()[*place].substr(0, 40)) +
               "\" is no number of 0 or more";
    return false;
}

bool RunCsv::take(Run& run) {
    run = Run();
    for (std::size_t i = 0; i < members.size(); ++i) {
        const Member& one = members[i];
        if (one.text != nullptr && places_[i])
            run.*one.text = std::string(csv_.fields()[*places_[i]]);
        if (one.figure != nullptr && !take_number(places_[i], one.name, run.*one.figure))
            return false;
    }
    std::optional<double> watts;
    if (!take_number(power_, power_column, watts))
        return false;
    if (!run.joules && watts && run.seconds)
        run.joules = *watts * *run.seconds * run.nodes.value_or(1.0);
    if (run.outcome.empty())
        run.outcome = "observed";
    return true;
}

std::string run_csv_header() {
    std::string line;
    for (const Member& one : members)
        line.append(one.name).append(",");
    return line.append(power_column).append("\n");
}

std::string run_csv_line(const Run& run) {
    std::string line;
    for (const Member& one : members) {
        if (one.text != nullptr)
            line += csv_cell(run.*one.text);
        else if (run.*one.figure)
            line += exact(*(run.*one.figure));
        line += ',';
    }
    const std::optional<double> watts = run.watts();
    return line.append(watts ? exact(*watts) : "").append("\n");
}

void for_each_member(const Run& run,
                     const std::function<void(const char* name, const std::string&)>& text,
                     const std::function<void(const char* name, double)>& figure) {
    for (const Member& one : members) {
        if (one.text != nullptr && !(run.*one.text).empty())
            text(one.name, run.*one.text);
        if (one.figure != nullptr && run.*one.figure)
            figure(one.name, *(run.*one.figure));
    }
}

}  // namespace easctl
