// Giving back what was set before: in this process or, after a crash, in another one.
#include <algorithm>
#include <map>

#include "base/Numbers.h"
#include "node/files/PseudoFile.h"
#include "node/frequency/NodeFrequency.h"

namespace eas::node {
namespace {

bool offers_word(const std::string& path, const std::string& word) {
    const std::vector<std::string> words = words_of(read_text(path).text);
    return std::find(words.begin(), words.end(), word) != words.end();
}

using Policies = std::vector<Policy>;

const Policy* find_policy(const Policies& policies, int number) {
    const auto found = std::find_if(policies.begin(), policies.end(),
                                    [number](const Policy& one) { return one.number == number; });
    return found != policies.end() ? &*found : nullptr;
}

/// Whether the driver that is there now takes such settings. Policies whose CPUs are offline come
/// later.
bool suits(const Policy& policy, const SavedPolicy& saved, Problem& problem) {
    if (saved.driver != policy.driver) {
        problem = {
            EASNODE_OTHER_NODE, policy.cpu(), 0, policy.file("scaling_driver"),
            "the settings are of the driver " + saved.driver + ", now it is " + policy.driver};
        return false;
    }
    if (!offers_word(policy.file("scaling_available_governors"), saved.settings.governor)) {
        problem = {EASNODE_BAD_TEXT, policy.cpu(), 0, policy.file("scaling_available_governors"),
                   "there is no governor \"" + saved.settings.governor + "\""};
        return false;
    }
    return true;
}

/// Nothing is written unless all of it could be.
bool may_give_back(const SavedSettings& saved, const Policies& policies, Problem& problem) {
    if (saved.boot != boot_id()) {
        problem = {EASNODE_OTHER_NODE, -1, 0, "/proc/sys/kernel/random/boot_id",
                   "the settings are of an earlier boot, and went with it"};
        return false;
    }
    return std::all_of(saved.policies.begin(), saved.policies.end(), [&](const auto& one) {
        const Policy* policy = find_policy(policies, one.first);
        return policy == nullptr || suits(*policy, one.second, problem);
    });
}

/// Neither what was saved nor what was fixed: somebody else wrote it. A process that was stopped in
/// the middle of fixing leaves some of both.
bool is_of_others(const Settings& found, const Settings& saved, int asked) {
    const auto strange = [asked](int now, int before) { return now != before && now != asked; };
    return strange(found.min, saved.min) || strange(found.max, saved.max) ||
           (found.governor != saved.governor && found.governor != "userspace");
}

/// The policies of now that were saved, with what is known of them.
Policies policies_of(const SavedSettings& saved) {
    Policies found;
    for (Policy& policy : read_policies()) {
        const auto before = saved.policies.find(policy.number);
        if (before == saved.policies.end())
            continue;
        policy.driver = driver_of(policy);
        policy.has_boost = before->second.settings.boost >= 0;
        policy.has_preference = !before->second.settings.preference.empty();
        found.push_back(std::move(policy));
    }
    return found;
}

/// What stands there now, by number; policies that cannot be read are left out.
std::map<int, Settings> settings_of(const Policies& policies) {
    std::map<int, Settings> found;
    for (const Policy& policy : policies) {
        Settings settings;
        Problem ignored;
        if (read_settings(policy, settings, ignored))
            found.emplace(policy.number, std::move(settings));
    }
    return found;
}

/// The first policy that another program changed; null: none.
const Policy* find_moved(const SavedSettings& saved, const std::map<int, Settings>& present,
                         const Policies& policies, int asked) {
    for (const auto& [number, found] : present)
        if (is_of_others(found, saved.policies.at(number).settings, asked))
            return find_policy(policies, number);
    return nullptr;
}

/// Gives back all that can be; how many policies were, and the first problem.
std::size_t write_all(const SavedSettings& saved, const std::map<int, Settings>& present,
                      const Policies& policies, Problem& problem) {
    std::size_t good = 0;
    const bool limits_stay =
        saved.turbo.kind == TurboSwitch::Kind::none || read_turbo_switch() == saved.turbo;
    if (!set_turbo_switch(saved.turbo, problem))  // first: it sets the limits anew
        problem.code = EASNODE_NOT_GIVEN_BACK;
    for (const auto& [number, before] : saved.policies) {
        Problem here{
            EASNODE_NOT_GIVEN_BACK, -1, 0, {}, "policy" + decimal(number) + " has no CPU online"};
        const Policy* policy = find_policy(policies, number);
        const auto now = limits_stay ? present.find(number) : present.end();
        const Settings* const just_read = now != present.end() ? &now->second : nullptr;
        if (policy != nullptr && apply_settings(*policy, just_read, before.settings, here))
            ++good;
        else if (problem.code == EASNODE_OK)
            problem = here;
    }
    return good;
}

}  // namespace

bool give_back(const SavedSettings& saved, int asked, Problem& problem) {
    const Policies policies = policies_of(saved);
    if (!may_give_back(saved, policies, problem))
        return false;
    const std::map<int, Settings> present = settings_of(policies);
    const Policy* const moved = asked > 0 ? find_moved(saved, present, policies, asked) : nullptr;
    const std::size_t good = write_all(saved, present, policies, problem);
    if (problem.code != EASNODE_OK) {
        if (good > 0 || problem.code != EASNODE_DENIED)
            problem.code = EASNODE_NOT_GIVEN_BACK;
        return false;
    }
    if (moved == nullptr)
        return true;
    problem = {EASNODE_MOVED, moved->cpu(), 0, moved->file("scaling_max_freq"),
               "another program had changed the settings meanwhile; they are given back"};
    return false;
}

}  // namespace eas::node
