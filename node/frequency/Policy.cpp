#include "node/frequency/Policy.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <functional>
#include <optional>

#include "base/Numbers.h"
#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"
#include "node/frequency/Nominal.h"

namespace eas::node {
namespace {

constexpr const char* policy_folder = "/sys/devices/system/cpu/cpufreq";
constexpr std::string_view policy_prefix = "policy";
constexpr const char* preference_file = "energy_performance_preference";

std::optional<int> read_khz(const std::string& path) {
    const auto number = read_number(path);
    if (!number || *number < 0 || *number > INT_MAX)
        return std::nullopt;
    return static_cast<int>(*number);
}

std::vector<int> read_table(const Policy& policy) {
    std::vector<int> table;
    for (const std::string& word :
         words_of(read_text(policy.file("scaling_available_frequencies")).text)) {
        const auto khz = parse_number(word);
        if (khz && *khz > 0 && *khz <= INT_MAX)
            table.push_back(static_cast<int>(*khz));
    }
    std::sort(table.begin(), table.end(), std::greater<>());
    table.erase(std::unique(table.begin(), table.end()), table.end());
    return table;
}

/// The policy of a folder's name; without CPUs when it has none online, or is no policy.
Policy read_policy(const std::string& name) {
    Policy policy;
    const auto number = parse_number(std::string_view(name).substr(policy_prefix.size()));
    if (!number || *number < 0 || *number >= kMostCpus)
        return policy;
    policy.number = static_cast<int>(*number);
    FileText cpus = read_text(policy.file("affected_cpus"));  // those that are online
    if (!cpus.good())
        cpus = read_text(policy.file("related_cpus"));
    policy.cpus = parse_cpu_list(cpus.text).value_or(std::vector<int>{});
    return policy;
}

// ---- reading what is set ----

bool read_limit(const Policy& policy, const char* name, int& khz, Problem& problem) {
    const FileText file = read_text(policy.file(name));
    const auto number = parse_number(file.text);
    if (file.good() && number && *number >= 0 && *number <= INT_MAX) {
        khz = static_cast<int>(*number);
        return true;
    }
    problem = file_problem(
        policy.cpu(), policy.file(name), file.error,
        file.good() ? "this is no frequency: \"" + file.text + "\"" : "it cannot be read");
    return false;
}

/// 0 or 1; -1 where the policy has no switch of its own.
int read_boost(const Policy& policy) {
    if (!policy.has_boost)
        return -1;
    const auto value = read_number(policy.file("boost"));
    return value && *value >= 0 && *value <= 1 ? static_cast<int>(*value) : -1;
}

// ---- writing ----

/// The driver rounds what "userspace" is told to its own steps, and shows the result.
constexpr int speed_rounding = 100000;

class Writer {
  public:
    Writer(const Policy& policy, Problem& problem) : policy_(policy), problem_(problem) {}

    bool write(const char* name, const std::string& text) {
        const std::string path = policy_.file(name);
        const int error = write_text(path, text);
        has_written_ = true;
        if (error != 0)
            problem_ = file_problem(policy_.cpu(), path, error,
                                    "the driver " + policy_.driver + " refused \"" + text + "\"");
        return error == 0;
    }
    bool write(const char* name, int number) { return write(name, decimal(number)); }

    bool write_limits(const Settings& wanted, const Settings& present) {
        const auto set_min = [&] {
            return wanted.min == present.min || write("scaling_min_freq", wanted.min);
        };
        const auto set_max = [&] {
            return wanted.max == present.max || write("scaling_max_freq", wanted.max);
        };
        // The lower limit may not pass the upper one on the way.
        return wanted.min > present.max ? set_max() && set_min() : set_min() && set_max();
    }

    /// A governor "performance" forbids any preference but its own.
    bool write_preference(const Settings& wanted, const Settings& present) {
        return wanted.preference.empty() || wanted.preference == present.preference ||
               write(preference_file, wanted.preference);
    }

    [[nodiscard]] bool has_written() const { return has_written_; }

  private:
    const Policy& policy_;
    Problem& problem_;
    bool has_written_ = false;
};

bool is_wanted(const Policy& policy, const Settings& wanted, const Settings& found) {
    const int off = std::abs(wanted.speed - found.speed);
    const bool speed =
        wanted.speed < 0 || off == 0 || (policy.table.empty() && off < speed_rounding);
    return speed && wanted.min == found.min && wanted.max == found.max &&
           (wanted.governor.empty() || wanted.governor == found.governor) &&
           (wanted.boost < 0 || wanted.boost == found.boost) &&
           (wanted.preference.empty() || wanted.preference == found.preference);
}

std::string shown(const Settings& settings) {
    std::string text = settings.governor + ", limits " + decimal(settings.min) + " to " +
                       decimal(settings.max) + " kHz";
    if (settings.speed >= 0)
        text += ", set speed " + decimal(settings.speed) + " kHz";
    return text;
}

bool read_back(const Policy& policy, const Settings& wanted, Problem& problem) {
    Settings found;
    if (!read_settings(policy, found, problem))
        return false;
    if (is_wanted(policy, wanted, found))
        return true;
    problem = {EASNODE_NOT_TAKEN, policy.cpu(), 0, policy.file("scaling_governor"),
               "was set, but this stands there now: " + shown(found)};
    return false;
}

}  // namespace

std::string Policy::file(const char* name) const {
    std::string path = policy_folder;
    path += '/';
    path += policy_prefix;
    return path + decimal(number) + '/' + name;
}

int Policy::highest() const {
    return read_khz(file("cpuinfo_max_freq")).value_or(table.empty() ? 0 : table.front());
}

int Policy::bios_limit() const {
    return read_khz(file("bios_limit")).value_or(0);
}

std::vector<Policy> read_policies() {
    std::vector<Policy> policies;
    for (const std::string& name : names_in(policy_folder)) {
        if (name.compare(0, policy_prefix.size(), policy_prefix) != 0)
            continue;
        Policy policy = read_policy(name);
        if (!policy.cpus.empty())
            policies.push_back(std::move(policy));
    }
    std::sort(policies.begin(), policies.end(),
              [](const Policy& a, const Policy& b) { return a.number < b.number; });
    return policies;
}

std::string driver_of(const Policy& policy) {
    return read_text(policy.file("scaling_driver")).text;
}

void complete_policy(Policy& policy) {
    policy.driver = driver_of(policy);
    policy.has_boost = read_boost(policy) >= 0;
    policy.has_preference = read_text(policy.file(preference_file)).good();
    const auto governors = words_of(read_text(policy.file("scaling_available_governors")).text);
    policy.offers_userspace =
        std::find(governors.begin(), governors.end(), "userspace") != governors.end();
    policy.table = read_table(policy);
    policy.lowest = read_khz(policy.file("cpuinfo_min_freq")).value_or(0);
    find_nominal(policy);
}

bool read_settings(const Policy& policy, Settings& settings, Problem& problem) {
    const FileText governor = read_text(policy.file("scaling_governor"));
    if (!governor.good()) {
        problem = file_problem(policy.cpu(), policy.file("scaling_governor"), governor.error,
                               "it cannot be read");
        return false;
    }
    settings.governor = trimmed(governor.text);
    if (!read_limit(policy, "scaling_min_freq", settings.min, problem) ||
        !read_limit(policy, "scaling_max_freq", settings.max, problem))
        return false;
    // Under other governors the file says "<unsupported>".
    settings.speed = settings.governor == "userspace"
                         ? read_khz(policy.file("scaling_setspeed")).value_or(-1)
                         : -1;
    settings.boost = read_boost(policy);
    settings.preference =
        policy.has_preference ? trimmed(read_text(policy.file(preference_file)).text) : "";
    return true;
}

bool apply_settings(const Policy& policy, const Settings* just_read, const Settings& wanted,
                    Problem& problem) {
    Settings present;
    Writer writer(policy, problem);
    if (just_read != nullptr)
        present = *just_read;
    else if (!read_settings(policy, present, problem))
        return false;
    if (wanted.boost >= 0 && wanted.boost != present.boost) {
        // Limits are set anew by the switch.
        if (!writer.write("boost", wanted.boost) || !read_settings(policy, present, problem))
            return false;
    }
    if (!wanted.governor.empty() && wanted.governor != present.governor) {
        // A preference may come along with the governor.
        if (!writer.write("scaling_governor", wanted.governor) ||
            !read_settings(policy, present, problem))
            return false;
    }
    if (!writer.write_preference(wanted, present) || !writer.write_limits(wanted, present))
        return false;
    if (wanted.speed >= 0 && wanted.speed != present.speed &&
        !writer.write("scaling_setspeed", wanted.speed))
        return false;
    return !writer.has_written() || read_back(policy, wanted, problem);
}

}  // namespace eas::node
