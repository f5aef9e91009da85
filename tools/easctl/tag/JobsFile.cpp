#include "tools/easctl/tag/JobsFile.h"

#include <climits>
#include <cmath>
#include <utility>

#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/history/RunCsv.h"

namespace easctl {

namespace {

constexpr std::array counter_names{"cycles", "instructions", "memory_bytes"};
constexpr double most_runs = 1e9;  // of a row; the sum of no file that fits a disk overflows

}  // namespace

JobsFile::JobsFile(std::string path, unsigned needs, const std::string& class_column)
    : needs_(needs) {
    LineReader lines(std::move(path));
    const std::string_view first = lines.peek();
    if (first.empty() || (is_csv_header(first) && !is_run_csv_header(first)))
        open_csv(std::move(lines), class_column);
    else
        runs_ = read_runs(std::move(lines));
}

void JobsFile::open_csv(LineReader lines, const std::string& class_column) {
    csv_.emplace(std::move(lines));
    if ((needs_ & names) != 0) {
        user_ = find("user", true);
        tag_ = find("tag", true);
    }
    if ((needs_ & job) != 0)
        job_ = find("job_id", true);
    for (std::size_t i = 0; i < counters_.size(); ++i)
        counters_[i] = find(counter_names[i], (needs_ & counters) != 0);
    elapsed_ = find("elapsed_s", true);
    power_ = find("power_w", true);
    frequency_ = find("frequency_khz", (needs_ & frequency) != 0);
    count_ = find("count", false);
    meter_ = find("meter", false);
    class_ = find(class_column.c_str(), class_column != "class");
}

JobsFile::Place JobsFile::find(const char* name, bool needed) const {
    const Place place = csv_->column(name);
    if (needed && !place)
        throw Failure(ExitCode::input,
                      csv_->where() + ": the header names no column \"" + name + '"');
    return place;
}

/// Runs that lack what is needed are passed over: most jobs of a site have no tag.
CsvFile::Step JobsFile::next_run(JobRow& row) {
    for (;;) {
        const RunForm::Step step = runs_->next(run_);
        if (step == RunForm::Step::end)
            return CsvFile::Step::end;
        if (step == RunForm::Step::bad) {
            problem_ = runs_->problem();
            return CsvFile::Step::bad_row;
        }
        const bool at_other_frequency =
            only_khz_ != 0 && run_.frequency.value_or(only_khz_) != only_khz_;
        if (step == RunForm::Step::run && !at_other_frequency && take_run(row))
            return take_meter(run_.meter) ? CsvFile::Step::row : CsvFile::Step::bad_row;
        ++passed_over_;
    }
}

bool JobsFile::take_run(JobRow& row) {
    row = {run_.user, run_.tag, run_.job, run_.job_class};
    row.has_counters = run_.cycles && run_.instructions && run_.bytes;
    const bool named = !run_.user.empty() && !run_.tag.empty();
    const double khz = run_.frequency.value_or(0.0);
    if (run_.outcome == "failed" || !run_.is_measured() || !(*run_.seconds >= 1.0) ||
        *run_.seconds > INT_MAX || khz > INT_MAX || run_.runs() > most_runs ||
        ((needs_ & names) != 0 && !named) || ((needs_ & job) != 0 && run_.job.empty()) ||
        ((needs_ & counters) != 0 && !row.has_counters) ||
        ((needs_ & frequency) != 0 && !(khz >= 1.0)))
        return false;
    if (row.has_counters)
        row.counters = {*run_.cycles, *run_.instructions, *run_.bytes};
    row.elapsed_s = static_cast<int>(*run_.seconds);
    row.power_w = *run_.watts();
    row.frequency_khz = static_cast<int>(khz);
    row.count = static_cast<std::uint64_t>(run_.runs());
    return true;
}

CsvFile::Step JobsFile::next(JobRow& row) {
    if (runs_)
        return next_run(row);
    const CsvFile::Step step = csv_->next();
    if (step != CsvFile::Step::row) {
        problem_ = csv_->problem();
        return step;
    }
    return take_names(row) && take_counters(row) && take_figures(row) && take_frequency(row) &&
                   take_meter(meter_ ? csv_->fields()[*meter_] : std::string_view())
               ? CsvFile::Step::row
               : CsvFile::Step::bad_row;
}

bool JobsFile::text(Place place, const char* name, std::string_view& value) {
    if (!place)
        return true;
    value = csv_->fields()[*place];
    if (!value.empty() && value.find('\0') == std::string_view::npos)
        return true;
    problem_ = std::string(name) + (value.empty() ? " is empty" : " holds a NUL character");
    return false;
}

bool JobsFile::number(Place place, const char* name, double& value) {
    if (!place)
        return true;
    const std::string_view field = csv_->fields()[*place];
    const std::optional<double> parsed = parse_number(field);
    if (parsed && *parsed >= 0.0) {
        value = *parsed;
        return true;
    }
    problem_ = std::string(name) + ": \"" + std::string(field.substr(0, 40)) +
               (parsed ? "\" is below 0" : "\" is not a number");
    return false;
}

/// `cut`: what is below a whole one is cut off, else refused.
bool JobsFile::whole(Place place, const char* name, double smallest, double largest, double& value,
                     bool cut) {
    double given = value;
    if (!number(place, name, given))
        return false;
    value = std::trunc(given);
    const char* const problem = value != given && !cut ? "\" is not a whole number"
                                : value < smallest     ? "\" is too small"
                                : value > largest      ? "\" is too large"
                                                       : nullptr;
    if (problem != nullptr)
        problem_ = std::string(name) + ": \"" + std::string(csv_->fields()[*place].substr(0, 40)) +
                   problem;
    return problem == nullptr;
}

bool JobsFile::take_names(JobRow& row) {
    row.job_class = {};
    if (class_)
        row.job_class = csv_->fields()[*class_];
    return text(user_, "user", row.user) && text(tag_, "tag", row.tag) &&
           text(job_, "job_id", row.job_id);
}

/// A file that does not need counters may leave them empty.
bool JobsFile::take_counters(JobRow& row) {
    row.has_counters = true;
    for (const auto& column : counters_) {
        if (!column || ((needs_ & counters) == 0 && csv_->fields()[*column].empty()))
            row.has_counters = false;
    }
    for (std::size_t i = 0; i < counters_.size() && row.has_counters; ++i) {
        if (!number(counters_[i], counter_names[i], row.counters[i]))
            return false;
    }
    return true;
}

bool JobsFile::take_figures(JobRow& row) {
    double elapsed = 0.0;
    double count = 1.0;
    if (!whole(elapsed_, "elapsed_s", 1.0, INT_MAX, elapsed, true) ||
        !number(power_, "power_w", row.power_w) || !whole(count_, "count", 0.0, most_runs, count)) {
        return false;
    }
    if (!(row.power_w > 0.0)) {
        problem_ = "power_w is 0: a reading that is missing?";
        return false;
    }
    row.elapsed_s = static_cast<int>(elapsed);
    row.count = static_cast<std::uint64_t>(count);
    return true;
}

bool JobsFile::take_frequency(JobRow& row) {
    row.frequency_khz = 0;
    if (!frequency_ || ((needs_ & frequency) == 0 && csv_->fields()[*frequency_].empty()))
        return true;
    double khz = 0.0;
    if (!whole(frequency_, "frequency_khz", 1.0, INT_MAX, khz))
        return false;
    row.frequency_khz = static_cast<int>(khz);
    if (only_khz_ == 0 || row.frequency_khz == only_khz_)
        return true;
    problem_ = "measured at " + std::to_string(row.frequency_khz) +
               " kHz, not at the default frequency of " + std::to_string(only_khz_) + " kHz";
    return false;
}

/// The watts of two meters have no common measure: one may see the packages, one the whole node.
bool JobsFile::take_meter(std::string_view meter) {
    if (meter.empty())
        return true;
    if (only_meter_.empty())
        only_meter_ = meter;
    if (meter == only_meter_)
        return true;
    problem_ = "measured by the meter \"" + std::string(meter.substr(0, 80)) +
               "\", the others by \"" + only_meter_ + "\": they have no common measure";
    return false;
}

}  // namespace easctl
