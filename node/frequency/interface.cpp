// The edge of the room "frequency".
#include <algorithm>
#include <memory>
#include <string>

#include "node/Edge.h"
#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"
#include "node/frequency/Handle.h"

namespace eas::node {
namespace {

constexpr const char* mixed = "mixed";

/// Tells the caller, whose record may be null; the code.
int told(const Problem& problem, easnode_problem* out) {
    if (out == nullptr)
        return problem.code;
    easnode_problem record{};
    record.code = problem.code;
    record.cpu = problem.code == EASNODE_OK ? 0 : problem.cpu;
    record.error = problem.error;
    fill_text(record.path, problem.path);
    fill_text(record.text, problem.text);
    fill_record(out, record);
    return problem.code;
}

bool is_problem(const easnode_problem* problem) {
    return problem == nullptr || is_record(problem);
}

/// One text if all say it, "mixed" if they do not.
std::string in_common(const std::string& so_far, const std::string& one) {
    return so_far.empty() || so_far == one ? one : mixed;
}

/// By the policy's own switch, else by that of all.
int turbo_of(const Settings& settings, const TurboSwitch& all) {
    if (settings.boost >= 0)
        return settings.boost == 1 ? EASNODE_TURBO_ON : EASNODE_TURBO_OFF;
    if (all.kind == TurboSwitch::Kind::none)
        return EASNODE_TURBO_NO_SWITCH;
    return all.on ? EASNODE_TURBO_ON : EASNODE_TURBO_OFF;
}

/// The lower of two limits, of which 0 is none.
int lower(int a, int b) {
    return a == 0 || (b != 0 && b < a) ? b : a;
}

void add_policy(const Policy& policy, const TurboSwitch& all, bool first,
                easnode_frequency_info& info, std::string& driver, std::string& governor) {
    Settings settings;
    Problem ignored;
    if (read_settings(policy, settings, ignored))
        governor = in_common(governor, settings.governor);
    driver = in_common(driver, policy.driver);
    const int turbo = turbo_of(settings, all);
    info.turbo = first || info.turbo == turbo ? turbo : EASNODE_TURBO_MIXED;
    info.lowest_khz = std::max(info.lowest_khz, policy.lowest);
    info.highest_khz = lower(info.highest_khz, policy.highest());
    info.bios_limit_khz = lower(info.bios_limit_khz, policy.bios_limit());
    info.has_table |= policy.table.empty() ? 0 : 1;
    if (!policy.offers_userspace || first)
        info.method =
            policy.offers_userspace ? EASNODE_FREQUENCY_USERSPACE : EASNODE_FREQUENCY_LIMITS;
}

easnode_frequency_info info_of(const NodeFrequency& frequency) {
    easnode_frequency_info info{};
    std::string driver, governor;
    info.cpus = static_cast<int32_t>(frequency.cpus().size());
    info.policies = static_cast<int32_t>(frequency.policies().size());
    const TurboSwitch all = read_turbo_switch();
    for (const Policy& policy : frequency.policies())
        add_policy(policy, all, &policy == &frequency.policies().front(), info, driver, governor);
    if (!frequency.bare_cpus().empty())
        info.method = EASNODE_FREQUENCY_NONE;
    info.nominal_khz = frequency.nominal(info.nominal_source);
    fill_text(info.driver, driver);
    fill_text(info.governor, governor);
    return info;
}

easnode_cpu_frequency row_of(int cpu, const NodeFrequency& frequency) {
    easnode_cpu_frequency row{cpu, -1, -1, -1, -1, -1, {}};
    for (const Policy& policy : frequency.policies()) {
        if (!std::binary_search(policy.cpus.begin(), policy.cpus.end(), cpu))
            continue;
        Settings settings;
        Problem ignored;
        row.policy = policy.number;
        row.current_khz =
            static_cast<int32_t>(read_number(policy.file("scaling_cur_freq")).value_or(-1));
        if (!read_settings(policy, settings, ignored))
            break;
        row.min_khz = settings.min;
        row.max_khz = settings.max;
        row.setspeed_khz = settings.speed;
        fill_text(row.governor, settings.governor);
        break;
    }
    return row;
}

int open_frequency(const char* cpus, easnode_frequency** frequency, Problem& problem) {
    std::vector<int> wanted;
    if (cpus != nullptr) {
        wanted = parse_cpu_list(cpus).value_or(std::vector<int>{});
        if (wanted.empty()) {
            problem = {EASNODE_BAD_ARGUMENT, -1, 0, {}, "this is no list of CPUs"};
            return problem.code;
        }
    }
    auto made = std::make_unique<easnode_frequency>();
    if (made->frequency.open(std::move(wanted), problem))
        *frequency = made.release();
    return problem.code;
}

/// The text of what is set now.
int save_text(const NodeFrequency& frequency, int khz, std::string& text, Problem& problem) {
    SavedSettings saved;
    if (frequency.policies().empty()) {
        problem = {EASNODE_NO_FREQUENCY, -1, 0, "/sys/devices/system/cpu/cpufreq",
                   "no cpufreq driver serves these CPUs"};
        return problem.code;
    }
    if (!frequency.save(khz, saved, problem))
        return problem.code;
    text = text_of(saved);
    if (!parse_settings(text))
        problem = {EASNODE_NOT_TAKEN, -1, 0, {}, "the node's settings are no plain words"};
    return problem.code;
}

}  // namespace
}  // namespace eas::node

using namespace eas::node;

int easnode_frequency_open(const char* cpus, easnode_frequency** frequency,
                           easnode_problem* problem) {
    if (frequency == nullptr || !is_problem(problem))
        return EASNODE_BAD_ARGUMENT;
    *frequency = nullptr;
    return at_the_edge([&] {
        Problem found;
        open_frequency(cpus, frequency, found);
        return told(found, problem);
    });
}

void easnode_frequency_close(easnode_frequency* frequency) {
    delete frequency;
}

int easnode_frequency_describe(const easnode_frequency* frequency, easnode_frequency_info* info) {
    return at_the_edge([&] {
        if (frequency == nullptr || !is_record(info))
            return EASNODE_BAD_ARGUMENT;
        fill_record(info, info_of(frequency->frequency));
        return EASNODE_OK;
    });
}

int easnode_frequency_steps(const easnode_frequency* frequency, easnode_step* steps,
                            size_t capacity, size_t* count) {
    return at_the_edge([&] {
        if (frequency == nullptr || count == nullptr || (steps == nullptr && capacity > 0))
            return EASNODE_BAD_ARGUMENT;
        const std::vector<Step> found = frequency->frequency.steps();
        *count = found.size();
        for (size_t i = 0; i < std::min(capacity, found.size()); ++i)
            steps[i] = {found[i].khz, found[i].turbo ? 1 : 0};
        return *count > capacity ? EASNODE_TOO_SMALL : EASNODE_OK;
    });
}

int easnode_frequency_read(const easnode_frequency* frequency, easnode_cpu_frequency* rows,
                           size_t capacity, size_t* count) {
    return at_the_edge([&] {
        if (frequency == nullptr || count == nullptr || (rows == nullptr && capacity > 0))
            return EASNODE_BAD_ARGUMENT;
        const std::vector<int>& cpus = frequency->frequency.cpus();
        *count = cpus.size();
        for (size_t i = 0; i < std::min(capacity, cpus.size()); ++i)
            rows[i] = row_of(cpus[i], frequency->frequency);
        return *count > capacity ? EASNODE_TOO_SMALL : EASNODE_OK;
    });
}

int easnode_frequency_save(const easnode_frequency* frequency, int32_t khz, char* text,
                           size_t capacity, size_t* length, easnode_problem* problem) {
    if (frequency == nullptr || text == nullptr || capacity == 0 || khz < 0 || !is_problem(problem))
        return EASNODE_BAD_ARGUMENT;
    *text = '\0';
    return at_the_edge([&] {
        Problem found;
        std::string saved;
        if (save_text(frequency->frequency, khz, saved, found) == EASNODE_OK) {
            if (length != nullptr)
                *length = saved.size();
            if (saved.size() < capacity)
                saved.copy(text, saved.size()), text[saved.size()] = '\0';
            else
                found = {EASNODE_TOO_SMALL, -1, 0, {}, "the text is longer than there is room for"};
        }
        return told(found, problem);
    });
}

int easnode_frequency_set(easnode_frequency* frequency, int32_t khz, easnode_problem* problem) {
    if (frequency == nullptr || khz <= 0 || !is_problem(problem))
        return EASNODE_BAD_ARGUMENT;
    return at_the_edge([&] {
        Problem found;
        static_cast<void>(frequency->frequency.fix(khz, found));
        return told(found, problem);
    });
}

int easnode_frequency_restore(easnode_frequency* frequency, const char* text, size_t length,
                              easnode_problem* problem) {
    if (text == nullptr || !is_problem(problem))
        return EASNODE_BAD_ARGUMENT;
    return at_the_edge([&] {
        Problem found;
        const auto saved = parse_settings({text, length});
        if (saved) {
            const int fixed = frequency != nullptr ? frequency->frequency.fixed() : 0;
            static_cast<void>(give_back(*saved, fixed > 0 ? fixed : saved->asked, found));
        } else {
            found = {EASNODE_BAD_TEXT, -1, 0, {}, "the text of settings is damaged, or none"};
        }
        return told(found, problem);
    });
}
