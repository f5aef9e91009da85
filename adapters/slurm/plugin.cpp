// plugin.cpp - what Slurm calls: the two options, the prolog and epilog of a job on a node, the
// first and the last moment of a step. Always says yes: a plugin that fails as root drains nodes.
#include <cxxabi.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>

#include "adapters/slurm/JobOnNode.h"
#include "adapters/slurm/JobQuery.h"
#include "adapters/slurm/Spank.h"
#include "adapters/slurm/UsageRecorder.h"

#define EAS_CALLBACK extern "C" __attribute__((visibility("default")))

// In C++ a constant is not visible outside its file unless it was declared before.
EAS_CALLBACK const char plugin_name[];
EAS_CALLBACK const char plugin_type[];
EAS_CALLBACK const unsigned int plugin_version;
EAS_CALLBACK const unsigned int spank_plugin_version;
SPANK_PLUGIN(eas, 1)

namespace {

using namespace eas::slurm;

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

void log(uint32_t job, const Outcome& outcome) {
    if (outcome.text.empty())
        return;
    if (outcome.good)
        slurm_info("eas: job %u: %s", job, outcome.text.c_str());
    else
        slurm_error("eas: job %u: %s", job, outcome.text.c_str());
}

/// Whatever goes wrong is logged and then forgotten.
int say_yes(uint32_t job, const std::function<void()>& work) {
    try {
        work();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        log(job, {false, error.what()});
    } catch (...) {
        log(job, {false, "failed for an unknown reason"});
    }
    return 0;
}

// ---- options ----

int check_option(bool good, const char* option, const char* rule, int remote) {
    if (good || remote != 0)
        return 0;  // as root they are checked where they are used
    slurm_error("--%s: %s", option, rule);
    return -1;
}

bool g_tag_given = false;
bool g_policy_given = false;

int tag_given(int, const char* value, int remote) {
    g_tag_given = true;
    return check_option(value != nullptr && is_tag_name(value), "energy-tag",
                        R"(a name is 1 to 255 letters, digits, "_", "." or "-")", remote);
}

int policy_given(int, const char* value, int remote) {
    g_policy_given = value != nullptr && std::string_view(value) != "none";
    return check_option(value != nullptr && is_policy(value), "energy-policy",
                        "a policy is minimize_energy, minimize_time or none", remote);
}

/// Slurm's structure wants changeable texts; it changes none.
struct Option {
    std::string name, argument, usage;
    spank_option option{};

    Option(const char* its_name, const char* its_argument, const char* its_usage,
           spank_opt_cb_f callback)
        : name(its_name), argument(its_argument), usage(its_usage) {
        option = {name.data(), argument.data(), usage.data(), 1, 0, callback};
    }
};

Option& tag_option() {
    static Option option("energy-tag", "NAME",
                         "measure this job under NAME, or run it by the measurement called NAME",
                         tag_given);
    return option;
}

Option& policy_option() {
    static Option option("energy-policy", "POLICY",
                         "minimize_energy, minimize_time or none (measure; the default)",
                         policy_given);
    return option;
}

/// The option's value as the root side may use it; empty when it was not given.
std::string checked_value(spank_t spank, Option& option, bool (*is_good)(std::string_view)) {
    char* value = nullptr;
    if (spank_option_getopt(spank, &option.option, &value) != ESPANK_SUCCESS || value == nullptr)
        return "";
    if (!is_good(value))
        throw std::runtime_error("--" + option.name + ": its value is not allowed; ignored");
    return value;
}

// ---- the job on this node ----

template <typename Value>
Value item(spank_t spank, spank_item_t which) {
    Value value{};
    if (spank_get_item(spank, which, &value) != ESPANK_SUCCESS)
        throw std::runtime_error("Slurm does not say what job this is");
    return value;
}

uint32_t job_of(spank_t spank) {
    uint32_t job = 0;
    spank_get_item(spank, S_JOB_ID, &job);
    return job;
}

PluginArguments arguments_of(int count, char** words) {
    PluginArguments arguments = parse_arguments(count, words);
    if (arguments.cluster.empty())
        arguments.cluster = environment("SLURM_CLUSTER_NAME");
    return arguments;
}

JobRequest request_of(spank_t spank) {
    JobRequest request;
    request.job = job_of(spank);
    request.user = item<uid_t>(spank, S_JOB_UID);
    say_yes(request.job, [&] {
        const std::string tag = checked_value(spank, tag_option(), is_tag_name);
        const std::string policy = checked_value(spank, policy_option(), is_policy);
        if (tag.empty() && !policy.empty() && policy != "none")
            throw std::runtime_error("--energy-policy without --energy-tag; ignored");
        request.tag = tag;
        request.policy = policy;
    });
    return request;
}

bool is_first_node() {
    std::string nodes = environment("SLURM_JOB_NODELIST");
    if (nodes.empty())
        nodes = environment("SLURM_NODELIST");
    return first_node(nodes) == environment("SLURMD_NODENAME");
}

void add(Outcome& all, const Outcome& part) {
    all.good = all.good && part.good;
    all.text += (all.text.empty() || part.text.empty() ? "" : "; ") + part.text;
}

Outcome tag_of(const PluginArguments& arguments, const StateFolder& folder, uint32_t job) {
    const std::optional<JobRecord> record = folder.read(job);
    if (!record || record->request.purpose() != Purpose::measure || !record->first_node)
        return {};
    return call_in_child(arguments.limit, [&] { return make_tag(arguments, *record); });
}

/// Whether there can be a record; why not was said by the prolog.
bool has_records(const PluginArguments& arguments) {
    try {
        const StateFolder folder(arguments.state);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

// Three children: a frequency is set back whether or not the library answers, and what the job
// needed is known whether or not the database does. The meter first: its figure is that of the
// job's frequency alone.
void end_job(const PluginArguments& arguments, uint32_t job) {
    if (!has_records(arguments))
        return;
    const StateFolder folder(arguments.state);
    const std::optional<JobRecord> record = folder.read(job);
    if (!record)
        return;
    Outcome outcome, consumption;
    if (record->start)
        consumption =
            call_in_child(arguments.limit, [&] { return read_meter_again(arguments, job); });
    if (!record->settings.empty())
        outcome = call_in_child(arguments.limit, [&] { return give_back(arguments, job); });
    const bool given_back = outcome.good;
    add(outcome, consumption);
    add(outcome, tag_of(arguments, folder, job));
    log(job, outcome);
    if (given_back)  // else the next prolog of this node tries again
        folder.remove(job);
}

// ---- the step ----

std::unique_ptr<UsageRecorder>& recorder() {
    static std::unique_ptr<UsageRecorder> its;
    return its;
}

bool has_own_frequency(spank_t spank) {
    std::array<char, 256> value{};
    const spank_err_t found =
        spank_getenv(spank, "SLURM_CPU_FREQ_REQ", value.data(), static_cast<int>(value.size()));
    return found == ESPANK_SUCCESS || found == ESPANK_NOSPACE;
}

void begin_step(spank_t spank, const PluginArguments& arguments, uint32_t job, uint32_t step) {
    constexpr uint32_t extern_step = 0xfffffffc;  // holds the job, runs nothing of it
    if (step == extern_step || !has_records(arguments))
        return;
    if (has_own_frequency(spank))
        log(job, call_in_child(arguments.limit, [&] { return yield_to_user(arguments, job); }));
    recorder() = std::make_unique<UsageRecorder>(arguments, job, step);
}

}  // namespace

EAS_CALLBACK int slurm_spank_init(spank_t spank, int, char**) {
    return say_yes(0, [&] {
        if (spank_context() == S_CTX_SLURMD)
            return;
        for (Option* option : {&tag_option(), &policy_option()})
            if (spank_option_register(spank, &option->option) != ESPANK_SUCCESS)
                throw std::runtime_error("Slurm does not take the option --" + option->name);
    });
}

EAS_CALLBACK int slurm_spank_job_prolog(spank_t spank, int count, char** words) {
    const uint32_t job = job_of(spank);
    return say_yes(job, [&] {
        const PluginArguments arguments = arguments_of(count, words);
        for (const std::string& complaint : arguments.complaints)
            log(job, {false, complaint});
        const JobRequest request = request_of(spank);
        const NodeRole role{is_first_node(), job_is_over};
        log(job,
            call_in_child(arguments.limit, [&] { return start_job(arguments, request, role); }));
    });
}

EAS_CALLBACK int slurm_spank_job_epilog(spank_t spank, int count, char** words) {
    const uint32_t job = job_of(spank);
    return say_yes(job, [&] { end_job(arguments_of(count, words), job); });
}

EAS_CALLBACK int slurm_spank_init_post_opt(spank_t spank, int count, char** words) {
    if (spank_context() != S_CTX_REMOTE) {
        if (g_policy_given && !g_tag_given && environment("SLURM_JOB_ID").empty())
            slurm_error("--energy-policy does nothing without --energy-tag");
        return 0;
    }
    const uint32_t job = job_of(spank);
    return say_yes(job, [&] {
        const auto step = item<uint32_t>(spank, S_JOB_STEPID);
        begin_step(spank, parse_arguments(count, words), job, step);
    });
}

EAS_CALLBACK int slurm_spank_exit(spank_t spank, int, char**) {
    if (spank_context() != S_CTX_REMOTE || recorder() == nullptr)
        return 0;
    const uint32_t job = job_of(spank);
    return say_yes(job, [&] { recorder()->finish(); });
}
