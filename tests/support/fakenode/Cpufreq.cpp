#include "tests/support/fakenode/Cpufreq.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace eas::fake {
namespace {

constexpr int unknown_clock = 2000000;  // of a node that tells none

std::string line(int value) {
    return std::to_string(value) + "\n";
}

/// A whole decimal number, a newline behind it or not; -1 for anything else.
int khz_of(const std::string& text) {
    char* end = nullptr;
    const long khz = std::strtol(text.c_str(), &end, 10);
    const bool whole = end != text.c_str() && (*end == '\0' || std::strcmp(end, "\n") == 0);
    return whole && khz >= 0 && khz <= 1000000000 ? static_cast<int>(khz) : -1;
}

bool has_word(const std::string& list, const std::string& wanted) {
    std::istringstream words(list);
    for (std::string word; words >> word;)
        if (word == wanted)
            return true;
    return false;
}

std::string first_word(const std::string& text) {
    return text.substr(0, text.find_first_of(" \n"));
}

}  // namespace

Cpufreq::Cpufreq(const NodeShape& shape, NodeState& state, const NodeCpus& cpus, TreeEntry& root)
    : shape_(shape),
      state_(state),
      cpus_(cpus),
      folder_(*root.find("sys/devices/system/cpu")),
      by_cpu_(cpus.all().size()) {
    folder_.each("cpufreq", "policy", [this](const std::string& name, TreeEntry& folder) {
        add_policy(std::stoi(name.substr(6)), folder);
    });
    attach_turbo(folder_, "cpufreq/boost", -1, &turbo_);
    attach_turbo(folder_, "intel_pstate/no_turbo", -1, &turbo_, true);
}

void Cpufreq::add_policy(int number, TreeEntry& folder) {
    FreqPolicy made{};
    made.number = number;
    made.folder = &folder;
    made.cpus = cpu_list(folder.value("related_cpus", std::to_string(number)));
    std::istringstream list(folder.value("scaling_available_frequencies"));
    for (int khz = 0; list >> khz;)
        made.table.push_back(khz);
    std::sort(made.table.rbegin(), made.table.rend());
    const auto khz = [&folder](const char* name, int otherwise) {
        return static_cast<int>(folder.number(name, otherwise));
    };
    made.lowest = khz("cpuinfo_min_freq", made.table.empty() ? 0 : made.table.back());
    made.highest = khz("cpuinfo_max_freq", made.table.empty() ? unknown_clock : made.table.front());
    made.nominal =
        khz("base_frequency", shape_.nominal_khz != 0 ? shape_.nominal_khz : made.highest);
    const std::string driver = folder.value("scaling_driver");
    made.step = made.table.empty() && driver.rfind("intel_", 0) == 0 ? 100000 : 0;
    made.own_powersave = driver == "intel_pstate" || driver.find("epp") != driver.npos;
    made.min = khz("scaling_min_freq", made.lowest);
    made.max = khz("scaling_max_freq", made.highest);
    made.speed = made.max;
    made.cap = khz("bios_limit", 0);
    made.governor = folder.value("scaling_governor");
    policies_.push_back(std::make_unique<FreqPolicy>(std::move(made)));
    FreqPolicy& policy = *policies_.back();
    for (const int cpu : policy.cpus)
        by_cpu_.at(static_cast<size_t>(cpu)) = &policy;
    attach_settings(policy);
    attach_preference(policy);
    attach_turbo(folder, "boost", number, &policy.turbo);
}

/// Attaches a file that fails while all CPUs of the policy are offline. Its writes are kept for the
/// test, refused or not.
void Cpufreq::attach(FreqPolicy& policy, const std::string& name, std::function<std::string()> show,
                     std::function<int(const std::string&)> store) {
    const auto idle = [this, p = &policy] {
        return std::none_of(p->cpus.begin(), p->cpus.end(),
                            [this](int cpu) { return cpus_.is_online(cpu); });
    };
    const auto shown = [idle, show = std::move(show)] { return idle() ? "!EBUSY" : show(); };
    if (!store)
        return policy.folder->attach(name, shown);
    policy.folder->attach(name, shown,
                          [this, idle, number = policy.number, name,
                           store = std::move(store)](const std::string& text) {
                              state_.log_write(number, name, text);
                              return idle() ? -EBUSY : store(text);
                          });
}

void Cpufreq::attach_settings(FreqPolicy& policy) {
    FreqPolicy* const p = &policy;
    const auto shown = [p](auto function) { return [p, function] { return function(*p); }; };
    attach(policy, "scaling_cur_freq", [this, p] { return line(clock(*p)); });
    attach(policy, "cpuinfo_cur_freq", [this, p] { return line(clock(*p)); });
    attach(policy, "cpuinfo_max_freq", [this, p] { return line(ceiling_of(*p)); });
    policy.folder->attach("affected_cpus", [this, p] {
        std::string text;
        for (const int cpu : p->cpus)
            if (cpus_.is_online(cpu))
                text += (text.empty() ? "" : " ") + std::to_string(cpu);
        return text + "\n";
    });
    attach(policy, "scaling_governor", shown([](FreqPolicy& one) { return one.governor + "\n"; }),
           [this, p](const std::string& text) { return store_governor(*p, text); });
    attach(policy, "scaling_min_freq", shown([](FreqPolicy& one) { return line(one.min); }),
           [this, p](const std::string& text) { return store_limit(*p, text, false); });
    attach(policy, "scaling_max_freq", shown([](FreqPolicy& one) { return line(one.max); }),
           [this, p](const std::string& text) { return store_limit(*p, text, true); });
    attach(
        policy, "scaling_setspeed",
        [this, p] {
            const int khz = requested(*p);
            return p->governor != "userspace" ? "<unsupported>\n"
                                              : line(p->step != 0 ? khz - khz % p->step : khz);
        },
        [this, p](const std::string& text) { return store_speed(*p, text); });
}

void Cpufreq::attach_preference(FreqPolicy& policy) {
    FreqPolicy* const p = &policy;
    constexpr const char* name_of_file = "energy_performance_preference";
    TreeEntry* const file = policy.folder->child(name_of_file);
    if (file == nullptr)
        return;
    attach(
        policy, name_of_file, [file] { return file->text; },
        [file, p](const std::string& text) {
            const std::string word = first_word(text);
            if (!has_word(p->folder->value("energy_performance_available_preferences"), word))
                return -EINVAL;
            if (p->governor == "performance" && word != "performance")
                return -EBUSY;
            file->text = word + "\n";
            return 0;
        });
}

/// A switch of one policy, or of all if `number` is -1.
void Cpufreq::attach_turbo(TreeEntry& folder, const std::string& name, int number, bool* on,
                           bool inverse) {
    TreeEntry* const file = folder.find(name);
    if (file == nullptr)
        return;
    *on = (folder.number(name) != 0) != inverse;
    folder.attach(
        name, [=] { return line(*on != inverse ? 1 : 0); },
        [=](const std::string& text) {
            state_.log_write(number, name, text);
            const int value = khz_of(text);
            if (value != 0 && value != 1)
                return -EINVAL;
            *on = (value != 0) != inverse;
            forget_limits();
            return 0;
        });
}

int Cpufreq::ceiling_of(const FreqPolicy& policy) const {
    return turbo_ && policy.turbo ? policy.highest : std::min(policy.highest, policy.nominal);
}

/// The lowest entry within the limits that is not below `khz`, else the highest within them.
int Cpufreq::entry_for(const FreqPolicy& policy, int khz) const {
    int entry = 0;
    for (const int candidate : policy.table)
        if (candidate >= policy.min && candidate <= policy.max && (candidate >= khz || entry == 0))
            entry = candidate;
    return entry != 0 ? entry : policy.table.back();
}

/// What the driver asks of the hardware.
int Cpufreq::requested(const FreqPolicy& policy) const {
    int khz = policy.max;  // what every governor of its own chooses for a busy CPU
    if (state_.deaf)
        return policy.table.empty() ? policy.highest : policy.table.front();
    if (policy.governor == "userspace")
        khz = std::clamp(policy.speed, policy.min, policy.max);
    else if (policy.governor == "powersave" && !policy.own_powersave)
        khz = policy.min;
    khz = std::min(khz, ceiling_of(policy));
    if (policy.cap != 0)
        khz = std::min(khz, policy.cap);
    return policy.table.empty() ? khz : entry_for(policy, khz);
}

int Cpufreq::clock(const FreqPolicy& policy) const {
    int khz = requested(policy);
    if (policy.step != 0)
        khz -= khz % policy.step;
    if (!policy.table.empty() && khz >= policy.table.front() && turbo_ && policy.turbo)
        khz = std::max(khz, shape_.turbo_khz);
    return state_.cap_khz > 0 ? std::min(khz, state_.cap_khz) : khz;
}

int Cpufreq::clock_of(int cpu) const {
    const FreqPolicy* policy = by_cpu_[static_cast<size_t>(cpu)];
    return policy != nullptr ? clock(*policy) : nominal_of(cpu);
}

int Cpufreq::nominal_of(int cpu) const {
    const FreqPolicy* policy = by_cpu_[static_cast<size_t>(cpu)];
    if (policy != nullptr)
        return policy->nominal;
    return shape_.nominal_khz != 0 ? shape_.nominal_khz : unknown_clock;
}

int Cpufreq::store_limit(FreqPolicy& policy, const std::string& text, bool upper) {
    int khz = khz_of(text);
    if (khz < 0)
        return -EINVAL;
    khz = std::clamp(khz, policy.lowest, ceiling_of(policy));
    if (upper ? khz < policy.min : khz > policy.max)
        return -EINVAL;
    (upper ? policy.max : policy.min) = khz;
    const auto within = [&](int entry) { return entry >= policy.min && entry <= policy.max; };
    const auto& table = policy.table;
    // A driver with a list moves the upper limit up until an entry lies between the two.
    for (auto entry = table.rbegin();
         entry != table.rend() && std::none_of(table.begin(), table.end(), within); ++entry)
        policy.max = std::max(policy.max, *entry);
    return 0;
}

int Cpufreq::store_governor(FreqPolicy& policy, const std::string& text) {
    const std::string word = first_word(text);
    if (!has_word(policy.folder->value("scaling_available_governors"), word))
        return -EINVAL;
    policy.speed = requested(policy);
    policy.governor = word;
    return 0;
}

int Cpufreq::store_speed(FreqPolicy& policy, const std::string& text) {
    const int khz = khz_of(text);
    if (policy.governor != "userspace" || khz < 0)
        return -EINVAL;
    policy.speed = khz;
    return 0;
}

/// A turbo switch sets every upper limit anew.
void Cpufreq::forget_limits() {
    for (const auto& policy : policies_) {
        policy->max = ceiling_of(*policy);
        policy->min = std::min(policy->min, policy->max);
    }
}

}  // namespace eas::fake
