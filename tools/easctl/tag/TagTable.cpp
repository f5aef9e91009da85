#include "tools/easctl/tag/TagTable.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "base/Numbers.h"
#include "common/records/TQVN_EnergyPolicyTag.h"
#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/model/ModelStore.h"
#include "tools/easctl/tag/Library.h"

namespace easctl {
namespace {

constexpr std::size_t rows_of_page = 4096;
constexpr std::size_t tags_of_batch = 50;
/// In which others get the lock of a database that has only one.
constexpr auto pause_between = std::chrono::milliseconds(3);

/// Places in a row of a page.
namespace place {
enum : std::size_t { name, job, frequency, power, saving, seconds, degradation, created };
}

int int_of(const Database::Value& value) {
    return eas::to_int(value.value_or("0").c_str());
}

double double_of(const Database::Value& value) {
    return eas::to_double(value.value_or("nan").c_str());
}

void add_row(const Database::Row& row, EnergyTag& tag) {
    tag.energy_tag_name(row[place::name].value_or(""));
    tag.job_step_id(row[place::job].value_or(""));
    tag.create_time(static_cast<std::int64_t>(double_of(row[place::created])));
    tag.set_array_data(int_of(row[place::frequency]), double_of(row[place::power]),
                       double_of(row[place::saving]), int_of(row[place::seconds]),
                       double_of(row[place::degradation]));
}

template <std::size_t N>
void copy_text(char (&field)[N], const std::string& text) {
    std::strncpy(field, text.c_str(), N - 1);
    field[N - 1] = '\0';
}

}  // namespace

std::vector<std::string> TagTable::users() {
    const Rows rows = database_.run(
        "select distinct user_name from TQVN_EnergyPolicyTag where cluster_name = ? and "
        "default_frequency = " +
            std::to_string(default_khz_) + " order by user_name",
        {cluster_});
    database_.rollback();
    std::vector<std::string> names;
    for (const Database::Row& row : rows)
        names.push_back(row[0].value_or(""));
    return names;
}

TagTable::Rows TagTable::read_page(const std::string& user, const std::string& condition,
                                   const std::string& name, std::size_t limit) {
    const auto exact = [this](const char* column) { return exact_column(database_, column); };
    std::vector<std::string> values{cluster_, user};
    if (!condition.empty())
        values.push_back(name);
    Rows rows = database_.run(
        "select energy_tag_name, job_id, frequency, " + exact("predict_power") + ", " +
            exact("energy_saving_pct") + ", predict_elapse_time, " + exact("perf_degrad_pct") +
            ", create_time from TQVN_EnergyPolicyTag where cluster_name = ? and user_name = ? and "
            "default_frequency = " +
            std::to_string(default_khz_) + condition +
            " order by energy_tag_name, frequency limit " + std::to_string(limit),
        values);
    database_.rollback();  // a reader that goes on would keep SQLite's writers out
    return rows;
}

void TagTable::read_user(const std::string& user, const std::string& tag, const Take& take) {
    std::size_t limit = rows_of_page;
    std::string condition = tag.empty() ? "" : " and energy_tag_name = ?";
    std::string after = tag;
    for (;;) {
        const Rows rows = read_page(user, condition, after, limit);
        const bool last_page = rows.size() < limit;
        EnergyTag one;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            add_row(rows[i], one);
            const bool complete =
                i + 1 < rows.size() ? rows[i + 1][place::name] != rows[i][place::name] : last_page;
            if (!complete)
                continue;
            one.cluster_name(cluster_);
            one.user_name(user);
            one.default_frequency(default_khz_);
            take(one);
            after = one.energy_tag_name();
            one = EnergyTag();
        }
        if (last_page)
            return;
        if (one.rows().size() == rows.size())
            limit *= 2;  // a tag larger than the page
        if (tag.empty() && !after.empty())
            condition = " and energy_tag_name > ?";
    }
}

void TagTable::for_each(const std::string& user, const std::string& tag, const Take& take) {
    const std::vector<std::string> all = user.empty() ? users() : std::vector<std::string>{user};
    for (const std::string& one : all)
        read_user(one, tag, take);
}

EnergyTag TagTable::find(const TagKey& key) {
    EnergyTag found;
    read_user(key.first, key.second, [&](const EnergyTag& tag) { found = tag; });
    return found;
}

/// Tags that were made anew since they were chosen stay. Rows of other names, which a database that
/// compares without case would take along, stop it all.
void TagTable::remove_batch(const std::string& user, const std::vector<std::string>& names,
                            double made_until) {
    std::string marks;
    std::vector<std::string> values{cluster_, user};
    for (const std::string& one : names) {
        marks += marks.empty() ? "?" : ",?";
        values.push_back(one);
    }
    const std::string condition =
        " from TQVN_EnergyPolicyTag where cluster_name = ? and user_name = ? and "
        "energy_tag_name in (" +
        marks + ") and default_frequency = " + std::to_string(default_khz_) +
        " and create_time <= " + number(made_until, 0);
    const Rows rows =
        database_.run("select distinct user_name, energy_tag_name" + condition, values);
    // On SQLite two writers that had read first would each wait for the other's lock of readers.
    database_.rollback();
    for (const Database::Row& row : rows) {
        const std::string other = row[1].value_or("");
        if (row[0] == user && std::find(names.begin(), names.end(), other) != names.end())
            continue;
        throw Failure(ExitCode::refused,
                      name_of_tag(row[0].value_or(""), other) +
                          " would be removed, too: the table compares names without case",
                      "easctl db check says how the table should be");
    }
    database_.run("delete" + condition, values);
    database_.commit();
}

void TagTable::remove(const std::vector<TagKey>& tags, double made_until, const Removed& removed) {
    for (std::size_t from = 0; from < tags.size();) {
        std::vector<std::string> names;
        std::size_t to = from;
        for (; to < tags.size() && tags[to].first == tags[from].first && to < from + tags_of_batch;
             ++to)
            names.push_back(tags[to].second);
        remove_batch(tags[from].first, names, made_until);
        for (; from < to; ++from)
            removed(tags[from]);
        std::this_thread::sleep_for(pause_between);
    }
}

void TagTable::insert(const EnergyTag& tag) {
    TQVN_EnergyPolicyTag row;
    row.selectAll();
    copy_text(row._cluster_name, cluster_);
    copy_text(row._user_name, tag.user_name());
    copy_text(row._energy_tag_name, tag.energy_tag_name());
    copy_text(row._job_id, tag.job_step_id());
    row._default_frequency = default_khz_;
    row._create_time = tag.create_time();
    for (const eas::TagRow& one : tag.rows()) {
        row._frequency = one.frequency;
        row._predict_power = one.power;
        row._energy_saving_pct = one.energy_change;
        row._predict_elapse_time = one.seconds;
        row._perf_degrad_pct = one.time_change;
        database_.insert(row);
    }
}

void TagTable::store(const std::vector<EnergyTag>& tags, bool replace) {
    try {
        for (const EnergyTag& tag : tags) {
            if (replace)
                database_.run(
                    "delete from TQVN_EnergyPolicyTag where cluster_name = ? and user_name = ? and "
                    "energy_tag_name = ? and default_frequency = " +
                        std::to_string(default_khz_),
                    {cluster_, tag.user_name(), tag.energy_tag_name()});
            insert(tag);
        }
        database_.commit();
    } catch (const Failure&) {
        database_.rollback();
        throw;
    }
}

}  // namespace easctl
