#include "tools/easctl/history/RunSource.h"

#include <array>
#include <cmath>
#include <ctime>

#include "tools/easctl/history/SacctTable.h"

namespace easctl {
namespace {

constexpr unsigned long most_complaints = 20;     // lines that are named one by one
constexpr unsigned long lines_per_update = 1024;  // of the progress bar
constexpr double day_s = 86'400;
constexpr double longest_s = 3660 * day_s;  // that sacct is asked for

std::unique_ptr<RunForm> form_of(const RunOptions& options) {
    return options.file.empty() ? nullptr : read_runs(LineReader(options.file));
}

}  // namespace

void RunOptions::add_to(CLI::App& command, const std::string& names) {
    add_option(
        command, names, file,
        "runs: output of sacct --parsable2, a file of records, or CSV; - for standard input\n"
        "(default: sacct is asked, for the period that --from begins)")
        .type_name("FILE");
    add_option(command, "--from", from,
               "runs that ended then or later: YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS, or a span before\n"
               "now such as 90d")
        .check(some_text())
        .type_name("TIME");
    add_option(command, "--to", to, "runs that ended before (default: now)")
        .check(some_text())
        .type_name("TIME");
}

void RunOptions::add_cluster_to(CLI::App& command) {
    add_option(command, "--cluster", cluster, "only the runs of this cluster of accounting")
        .check(some_text())
        .type_name("NAME");
}

double parse_span(const std::string& text) {
    constexpr std::string_view units = "smhdwy";
    constexpr std::array seconds{1.0, 60.0, 3600.0, day_s, 7 * day_s, 365 * day_s};
    const std::size_t unit = text.empty() ? std::string::npos : units.find(text.back());
    const auto value = parse_number(std::string_view(text).substr(0, text.size() - 1));
    if (unit == std::string::npos || !value || !(*value > 0.0))
        throw Failure(ExitCode::usage, "\"" + text + "\" is no span of time",
                      "a number with s, m (minutes), h, d, w or y, for example 90d");
    return *value * seconds[unit];
}

double parse_moment(const std::string& text) {
    if (const auto time = parse_time(text))
        return *time;
    if (const auto day = parse_time(text + "T00:00:00"))
        return *day;
    if (text.find_first_of("-T:") != std::string::npos)
        throw Failure(ExitCode::usage, "\"" + text + "\" is no time",
                      "YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS, or a span before now such as 90d");
    return static_cast<double>(std::time(nullptr)) - parse_span(text);
}

std::string day_of(double moment, bool month) {
    const auto whole = static_cast<std::time_t>(moment);
    std::tm local{};
    std::array<char, 32> text{};
    ::localtime_r(&whole, &local);
    std::strftime(text.data(), text.size(), month ? "%Y-%m" : "%Y-%m-%d", &local);
    return text.data();
}

RunSource::RunSource(const Globals& globals, RunOptions options)
    : options_(std::move(options)),
      form_(form_of(options_)),
      progress_("runs", form_ ? form_->lines().bytes_total() : 0, globals.quiet) {
    if (!options_.given())
        throw Failure(ExitCode::usage, "which runs?",
                      "give a file of them, or --from TIME to ask sacct");
    from_ = options_.from.empty() ? 0.0 : parse_moment(options_.from);
    to_ = options_.to.empty() ? static_cast<double>(std::time(nullptr)) : parse_moment(options_.to);
    if (!form_ && !(from_ < to_ && to_ - from_ <= longest_s))
        throw Failure(ExitCode::usage,
                      "--from and --to do not enclose a period of up to ten years");
    window_to_ = from_;
}

/// sacct is asked for one day after the other, so that its server keeps no year in memory.
bool RunSource::open_next_window() {
    if (!from_sacct() || window_to_ >= to_)
        return false;
    window_from_ = window_to_;
    window_to_ = std::min(to_, window_from_ + day_s);
    call_ = std::make_unique<SacctCall>(window_from_, window_to_);
    LineReader lines("sacct", call_->take_output());
    if (lines.peek().empty())
        call_->finish();  // says why
    form_ = read_runs(std::move(lines));
    return true;
}

/// A job that ran for days is in every window of them, and counts where it ended.
bool RunSource::is_wanted(const Run& run) const {
    const std::optional<double> when = run.when();
    const double from = from_sacct() ? window_from_ : from_;
    const double to = from_sacct() ? window_to_ : to_;
    const bool limited = from_sacct() || !options_.from.empty() || !options_.to.empty();
    if (limited && (!when || *when < from || *when >= to))
        return false;
    return options_.cluster.empty() || run.cluster == options_.cluster;
}

bool RunSource::read_next(Run& run) {
    for (;;) {
        const RunForm::Step step = form_->next(run);
        if (++lines_ % lines_per_update == 0)
            show_progress();
        if (step == RunForm::Step::end)
            return false;
        if (step == RunForm::Step::bad)
            complain_of_line();
        else if (step == RunForm::Step::no_record)
            ++counts_.without_record;
        else if (is_wanted(run))
            return true;
        else
            ++counts_.outside;
    }
}

bool RunSource::next(Run& run) {
    if (!form_ && !open_next_window())
        return false;
    while (!read_next(run)) {
        if (call_)
            call_->finish();
        if (!open_next_window())
            return false;
    }
    ++counts_.runs;
    return true;
}

void RunSource::show_progress() {
    const std::string note =
        from_sacct() ? day_of(window_from_) : std::to_string(counts_.runs) + " runs";
    progress_.update(from_sacct() ? counts_.runs : form_->lines().bytes_read(), note);
}

void RunSource::complain_of_line() {
    progress_.hide();
    if (++counts_.unreadable <= most_complaints)
        complain({ExitCode::input, form_->where() + ": " + form_->problem()});
    else if (counts_.unreadable == most_complaints + 1)
        complain({ExitCode::input, "further lines that cannot be read are only counted"});
}

void RunSource::finish(Globals& globals) {
    progress_.hide();
    if (counts_.unreadable == 0)
        return;
    globals.outcome = ExitCode::found;
    complain({ExitCode::found, std::to_string(counts_.unreadable) + " of " +
                                   std::to_string(lines_) +
                                   " lines could not be read and are left out"});
}

}  // namespace easctl
