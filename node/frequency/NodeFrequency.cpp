#include "node/frequency/NodeFrequency.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "base/Numbers.h"
#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"
#include "node/frequency/Nominal.h"
#include "node/topology/Topology.h"

namespace eas::node {
namespace {

constexpr int step_khz = 100000;

std::string in_khz(int khz) {
    return decimal(khz) + " kHz";
}

bool is_in(const std::vector<int>& sorted, int number) {
    return std::binary_search(sorted.begin(), sorted.end(), number);
}

bool has_entry(const Policy& policy, int khz) {
    return std::find(policy.table.begin(), policy.table.end(), khz) != policy.table.end();
}

/// Whether a step of another policy can be fixed on this one without turbo.
bool offers(const Policy& policy, int khz) {
    return policy.table.empty() ? khz >= policy.lowest && khz <= policy.nominal
                                : has_entry(policy, khz);
}

/// Candidates for the steps: entries of the tables, else round frequencies.
std::vector<int> candidates(const std::vector<Policy>& policies) {
    int lowest = 0, nominal = policies.front().nominal;
    for (const Policy& policy : policies) {
        if (!policy.table.empty())
            return policy.table;
        lowest = std::max(lowest, policy.lowest);
        nominal = std::min(nominal, policy.nominal);
    }
    std::vector<int> found;
    if (lowest == 0 || nominal < lowest)
        return found;
    found.push_back(nominal);
    for (int khz = (nominal - 1) / step_khz * step_khz; khz > lowest; khz -= step_khz)
        found.push_back(khz);
    if (nominal > lowest)
        found.push_back(lowest);
    return found;
}

/// The highest entry of a table without a turbo entry means "boost, if that is on" on processors
/// whose driver knows nothing above it.
bool boosts_by_itself(const Policy& policy, int khz) {
    return !policy.table.empty() && khz == policy.table.front() && !is_turbo(policy, khz);
}

constexpr const char* percent_file = "/sys/devices/system/cpu/intel_pstate/max_perf_pct";

/// The percentage of the highest frequency that intel_pstate allows; 0: no such limit.
int percent_limit() {
    const auto percent = read_number(percent_file);
    return percent && *percent > 0 && *percent < 100 ? static_cast<int>(*percent) : 0;
}

Problem not_offered(const Policy& policy, const char* file, int khz, const std::string& why) {
    return {EASNODE_NOT_OFFERED, policy.cpu(), 0, policy.file(file), in_khz(khz) + why};
}

/// Whether the hardware and the firmware of a policy allow it now. `percent`: that of
/// percent_limit. `more_turbo`: turbo is off and will be turned on, which may raise the highest
/// frequency.
bool may_fix_policy(const Policy& policy, int khz, int percent, bool more_turbo, Problem& problem) {
    const int highest = policy.highest(), limit = policy.bios_limit();
    const int allowed = highest / 100 * percent;
    if (!policy.table.empty() && !has_entry(policy, khz))
        problem = not_offered(policy, "scaling_available_frequencies", khz, " is not in the table");
    else if (khz < policy.lowest)
        problem = not_offered(policy, "cpuinfo_min_freq", khz,
                              " is below the lowest, " + in_khz(policy.lowest));
    else if (policy.table.empty() && khz > highest && !more_turbo)
        problem = not_offered(policy, "cpuinfo_max_freq", khz,
                              " is above the highest, " + in_khz(highest));
    else if (limit > 0 && khz > limit)
        problem = not_offered(policy, "bios_limit", khz,
                              " is above the firmware's limit, " + in_khz(limit));
    else if (allowed > 0 && khz > allowed)
        problem = {EASNODE_NOT_OFFERED, policy.cpu(), 0, percent_file,
                   in_khz(khz) + " is above this limit, " + in_khz(allowed)};
    else
        return true;
    return false;
}

/// A policy fixed at `khz`.
Settings fixed_settings(const Policy& policy, int khz) {
    Settings wanted;
    wanted.min = wanted.max = khz;
    if (policy.offers_userspace) {
        wanted.governor = "userspace";
        wanted.speed = khz;
    }
    if (policy.has_boost) {
        if (is_turbo(policy, khz))
            wanted.boost = 1;
        else if (boosts_by_itself(policy, khz))
            wanted.boost = 0;
    }
    return wanted;
}

}  // namespace

bool is_turbo(const Policy& policy, int khz) {
    return is_turbo_entry(policy.table, khz) || (policy.nominal > 0 && khz > policy.nominal);
}

bool NodeFrequency::open(std::vector<int> cpus, Problem& problem) {
    const std::vector<int> online = online_cpus();
    if (cpus.empty())
        cpus = online;
    for (const int cpu : cpus) {
        if (is_in(online, cpu))
            continue;
        problem = {EASNODE_BAD_ARGUMENT, cpu, 0, "/sys/devices/system/cpu/online",
                   "cpu" + decimal(cpu) + " is not online"};
        return false;
    }
    std::vector<int> served;
    for (Policy& policy : read_policies()) {
        if (std::none_of(policy.cpus.begin(), policy.cpus.end(),
                         [&cpus](int cpu) { return is_in(cpus, cpu); }))
            continue;
        served.insert(served.end(), policy.cpus.begin(), policy.cpus.end());
        complete_policy(policy);
        policies_.push_back(std::move(policy));
    }
    std::sort(served.begin(), served.end());
    std::set_difference(cpus.begin(), cpus.end(), served.begin(), served.end(),
                        std::back_inserter(bare_cpus_));
    std::set_union(cpus.begin(), cpus.end(), served.begin(), served.end(),
                   std::back_inserter(cpus_));
    whole_node_ = std::includes(cpus_.begin(), cpus_.end(), online.begin(), online.end());
    return true;
}

int NodeFrequency::nominal(int& source) const {
    source = EASNODE_NOMINAL_UNKNOWN;
    if (policies_.empty())
        return cpus_.empty() ? 0 : nominal_without_policy(cpus_.front(), source);
    const auto slowest =
        std::min_element(policies_.begin(), policies_.end(),
                         [](const Policy& a, const Policy& b) { return a.nominal < b.nominal; });
    source = slowest->nominal_source;
    return slowest->nominal;
}

std::vector<Step> NodeFrequency::steps() const {
    std::vector<Step> found;
    if (policies_.empty())
        return found;
    for (const int khz : candidates(policies_)) {
        if (!std::all_of(policies_.begin(), policies_.end(),
                         [khz](const Policy& policy) { return offers(policy, khz); }))
            continue;
        found.push_back(
            {khz, std::any_of(policies_.begin(), policies_.end(),
                              [khz](const Policy& policy) { return is_turbo(policy, khz); })});
    }
    return found;
}

bool NodeFrequency::save(int asked, SavedSettings& saved, Problem& problem) const {
    saved.boot = boot_id();
    saved.asked = asked;
    // A part of the node may not touch the switch of all of it.
    saved.turbo = whole_node_ ? read_turbo_switch() : TurboSwitch{};
    for (const Policy& policy : policies_) {
        SavedPolicy one{policy.driver, {}};
        if (!read_settings(policy, one.settings, problem))
            return false;
        saved.policies.emplace(policy.number, std::move(one));
    }
    return true;
}

/// How the switch of all CPUs must stand; kind none: it is left alone.
TurboSwitch NodeFrequency::switch_for(int khz) const {
    TurboSwitch wanted = read_turbo_switch();
    const bool on = std::any_of(policies_.begin(), policies_.end(),
                                [khz](const Policy& policy) { return is_turbo(policy, khz); });
    const bool off = std::any_of(policies_.begin(), policies_.end(), [khz](const Policy& policy) {
        return boosts_by_itself(policy, khz) && !policy.has_boost;
    });
    if (wanted.kind == TurboSwitch::Kind::none || (!on && !off) || wanted.on == on)
        return {};
    wanted.on = on;
    return wanted;
}

bool NodeFrequency::may_fix(int khz, const TurboSwitch& wanted, Problem& problem) const {
    if (policies_.empty() || !bare_cpus_.empty()) {
        const int cpu = bare_cpus_.empty() ? -1 : bare_cpus_.front();
        problem = {EASNODE_NO_FREQUENCY, cpu, 0, "/sys/devices/system/cpu/cpufreq",
                   "no cpufreq driver serves " +
                       (cpu < 0 ? std::string("this node") : "cpu" + decimal(cpu))};
        return false;
    }
    const int percent = percent_limit();
    for (const Policy& policy : policies_) {
        const bool own_switch =
            policy.has_boost && is_turbo(policy, khz) && read_number(policy.file("boost")) == 0;
        if (!may_fix_policy(policy, khz, percent, wanted.on || own_switch, problem))
            return false;
    }
    if (wanted.kind == TurboSwitch::Kind::none || whole_node_)
        return true;
    problem = {EASNODE_NOT_OFFERED, cpus_.front(), 0, "/sys/devices/system/cpu",
               in_khz(khz) + " takes the turbo switch, which is that of all CPUs"};
    return false;
}

bool NodeFrequency::fix(int khz, Problem& problem) {
    const TurboSwitch wanted = switch_for(khz);
    SavedSettings before;
    if (!may_fix(khz, wanted, problem) || !save(0, before, problem))
        return false;
    bool good = set_turbo_switch(wanted, problem);
    const bool limits_stay = wanted.kind == TurboSwitch::Kind::none;
    for (auto policy = policies_.begin(); good && policy != policies_.end(); ++policy) {
        const Settings& present = before.policies.at(policy->number).settings;
        good = apply_settings(*policy, limits_stay ? &present : nullptr,
                              fixed_settings(*policy, khz), problem);
    }
    if (good) {
        fixed_ = khz;
        return true;
    }
    Problem second;
    if (!give_back(before, 0, second)) {
        problem.text += "; and giving back: " + second.text;
        problem.code = EASNODE_NOT_GIVEN_BACK;
    }
    return false;
}

}  // namespace eas::node
