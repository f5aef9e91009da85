#include "tools/easctl/history/SacctTable.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "base/Numbers.h"
#include "tools/easctl/cli/Errors.h"

namespace easctl {
namespace {

constexpr char separator = '|';

bool same_name(std::string_view a, std::string_view b) {
    const auto same = [](char x, char y) { return eas::to_lower(x) == eas::to_lower(y); };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), same);
}

/// At most `most` fields; the last one takes the rest. False when there are fewer.
bool split_at(std::string_view line, std::size_t most, std::vector<std::string_view>& fields) {
    fields.clear();
    while (fields.size() + 1 < most) {
        const std::size_t end = line.find(separator);
        if (end == std::string_view::npos)
            break;
        fields.push_back(line.substr(0, end));
        line.remove_prefix(end + 1);
    }
    fields.push_back(line);
    return fields.size() == most;
}

}  // namespace

bool is_sacct_header(std::string_view line) {
    std::vector<std::string_view> names;
    split_at(line, std::string_view::npos, names);
    const auto has = [&](std::string_view name) {
        return std::any_of(names.begin(), names.end(),
                           [&](std::string_view one) { return same_name(one, name); });
    };
    return has("AdminComment") && (has("JobID") || has("JobIDRaw"));
}

std::optional<double> parse_time(std::string_view text) {
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos)
        return text.size() < 12 ? std::optional(eas::to_double(std::string(text).c_str()))
                                : std::nullopt;
    std::tm local{};
    local.tm_isdst = -1;
    int length = 0;
    const std::string copy(text);
    const int got =
        std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &local.tm_year, &local.tm_mon,
                    &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec, &length);
    if (got != 6 || static_cast<std::size_t>(length) != text.size() || local.tm_mon < 1 ||
        local.tm_mon > 12)
        return std::nullopt;
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    const std::time_t seconds = std::mktime(&local);
    return seconds > 0 ? std::optional(static_cast<double>(seconds)) : std::nullopt;
}

SacctTable::SacctTable(LineReader lines) : lines_(std::move(lines)) {
    char* text = nullptr;
    std::size_t length = 0;
    do {
        if (!lines_.next(text, length))
            throw Failure(ExitCode::input, lines_.path() + ": empty");
    } while (length == 0 || *text == '#');
    std::vector<std::string_view> names;
    split_at({text, length}, std::string_view::npos, names);
    columns_.assign(names.begin(), names.end());
    job_ = find("JobIDRaw");
    if (!job_)
        job_ = find("JobID");
    user_ = find("User");
    account_ = find("Account");
    cluster_ = find("Cluster");
    start_ = find("Start");
    end_ = find("End");
    nodes_ = find("NNodes");
    comment_ = find("AdminComment");
}

SacctTable::Place SacctTable::find(std::string_view name) const {
    const auto same = [&](const std::string& column) { return same_name(column, name); };
    const auto found = std::find_if(columns_.begin(), columns_.end(), same);
    if (found == columns_.end())
        return std::nullopt;
    if (std::any_of(found + 1, columns_.end(), same))
        throw Failure(ExitCode::input,
                      where() + ": the column " + std::string(name) + " is named twice");
    return static_cast<std::size_t>(found - columns_.begin());
}

bool SacctTable::split(std::string_view line) {
    if (lines_.too_long())
        problem_ = "the line is longer than 64 KiB";
    else if (!split_at(line, columns_.size(), fields_))
        problem_ = std::to_string(fields_.size()) + " fields, but the header names " +
                   std::to_string(columns_.size()) + " columns";
    else
        return true;
    return false;
}

RunForm::Step SacctTable::next(Run& run) {
    char* text = nullptr;
    std::size_t length = 0;
    for (;;) {
        if (!lines_.next(text, length))
            return Step::end;
        if (length == 0 && !lines_.too_long())
            continue;
        if (!split({text, length}))
            return Step::bad;
        if (field(job_).find('.') == std::string_view::npos)
            break;  // no step
    }
    const auto record = eas::job::find_record(field(comment_));
    if (!record)
        return Step::no_record;
    run = Run();
    static_cast<eas::job::RunRecord&>(run) = *record;
    take(run);
    return Step::run;
}

/// What accounting knows counts more than what a comment says.
void SacctTable::take(Run& run) const {
    const auto text = [this](Place place, std::string& value) {
        if (!field(place).empty())
            value = std::string(field(place));
    };
    text(job_, run.job);
    text(user_, run.user);
    text(cluster_, run.cluster);
    text(account_, run.job_class);
    if (const auto start = parse_time(field(start_)))
        run.start = start;
    run.end = parse_time(field(end_));
    if (!run.nodes)
        run.nodes = parse_number(field(nodes_));
}

}  // namespace easctl
