// plugin.cpp - what Slurm calls: the two options, the prolog and epilog of a job on a node, the
// first moment of a step. Always says yes: a plugin that fails as root drains nodes.
#include <cxxabi.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>

#include "adapters/job/JobOnNode.h"
#include "adapters/job/StateFolder.h"
#include "adapters/slurm/Controller.h"
#include "adapters/slurm/SlurmScheduler.h"
#include "adapters/slurm/Spank.h"

#define EAS_CALLBACK extern "C" __attribute__((visibility("default")))

// In C++ a constant is not visible outside its file unless it was declared before.
EAS_CALLBACK const char plugin_name[];
EAS_CALLBACK const char plugin_type[];
EAS_CALLBACK const unsigned int plugin_version;
EAS_CALLBACK const unsigned int spank_plugin_version;
SPANK_PLUGIN(eas, 1)

namespace {

using namespace eas::job;
using eas::slurm::SlurmScheduler;

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
                         "minimize_energy, minimize_time or none (leave the job alone, or "
                         "with a tag measure it)",
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

SiteSettings settings_of(int count, char** words) {
    SiteSettings settings = parse_settings(count, words);
    if (settings.cluster.empty())
        settings.cluster = environment("SLURM_CLUSTER_NAME");
    return settings;
}

JobPlace place_of_job() {
    std::string nodes = environment("SLURM_JOB_NODELIST");
    if (nodes.empty())
        nodes = environment("SLURM_NODELIST");
    return {environment("SLURMD_NODENAME"), first_node(nodes), number_of_nodes(nodes), ""};
}

/// What the user typed; the job's name is not yet known.
JobRequest request_of(spank_t spank) {
    JobRequest request;
    request.job = job_of(spank);
    request.user = item<uid_t>(spank, S_JOB_UID);
    say_yes(request.job, [&] {
        const std::string tag = checked_value(spank, tag_option(), is_tag_name);
        request.policy = checked_value(spank, policy_option(), is_policy);
        request.tag = tag;
    });
    return request;
}

bool opts_out(const JobRequest& typed) {
    return typed.tag.empty() && typed.policy == "none";
}

/// Whether Slurm must be asked what kind of job it is.
bool needs_a_look(const SiteSettings& settings, const JobRequest& typed) {
    if (opts_out(typed))
        return false;
    const bool by_name = settings.tag == "jobname" && typed.tag.empty() && !typed.policy.empty();
    return settings.looks_at_all_jobs() || by_name ||
           (!typed.tag.empty() && !settings.types.empty());
}

/// The job's tag and policy by the site's settings; jobs that ask for nothing are meant only when
/// they have their nodes for themselves.
JobRequest completed(const SiteSettings& settings, JobRequest typed) {
    const bool by_name = settings.tag == "jobname" && typed.tag.empty();
    const bool asks = !typed.tag.empty() || !typed.policy.empty();
    const auto job = eas::slurm::load_job(typed.job);
    if (!job || (!job->is_exclusive && (!asks || settings.observe == "yes")))
        return {typed.job, typed.user, "", "", false};
    if (by_name)
        typed.tag = tag_of_name(job->name);
    typed.observed = settings.observe == "yes";
    return typed;
}

SiteSettings settings_here(const SiteSettings& settings, JobPlace& place) {
    if (settings.types.empty())
        return settings;
    for (const eas::slurm::NodeWords& node : eas::slurm::load_nodes(place.node)) {
        SiteSettings here = settings_of_node(settings, node.features);
        place.type = here.type;
        return here;
    }
    return settings;
}

// Slurm is asked only once the job's record stands, with which it is no longer in the way of
// others: it may not answer before this process is ended.
Outcome start_after_a_look(const SiteSettings& settings, const JobRequest& typed, JobPlace place,
                           SlurmScheduler& slurm) {
    const JobRequest plain{typed.job, typed.user, "", "", false};
    Outcome outcome = start_job(settings, plain, place, slurm);
    JobRequest request = completed(settings, typed);
    if (request.policy.empty())
        request.policy = settings.default_policy;
    if (request.purpose() == Purpose::plain)
        return outcome;
    const Outcome rest = start_job(settings_here(settings, place), request, place, slurm);
    outcome.good = outcome.good && rest.good;
    outcome.text += (outcome.text.empty() ? "" : "; ") + rest.text;
    return outcome;
}

Outcome start(const SiteSettings& settings, JobRequest typed) {
    const JobPlace place = place_of_job();
    SlurmScheduler slurm(environment("SLURM_CLUSTER_NAME"), place.node);
    if (needs_a_look(settings, typed))
        return start_after_a_look(settings, typed, place, slurm);
    const bool policy_alone = typed.tag.empty() && !typed.policy.empty() && typed.policy != "none";
    if (typed.policy.empty())
        typed.policy = settings.default_policy;
    if (settings.observe == "yes")
        typed.tag.clear();
    Outcome outcome = start_job(settings, typed, place, slurm);
    if (policy_alone)
        outcome = {false, "--energy-policy without --energy-tag; ignored"};
    return outcome;
}

// ---- the step ----

bool has_own_frequency(spank_t spank) {
    std::array<char, 256> value{};
    const spank_err_t found =
        spank_getenv(spank, "SLURM_CPU_FREQ_REQ", value.data(), static_cast<int>(value.size()));
    return found == ESPANK_SUCCESS || found == ESPANK_NOSPACE;
}

/// Whether there can be a record; why not was said by the prolog.
bool has_records(const SiteSettings& settings) {
    try {
        const StateFolder folder(settings.state);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
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
        const SiteSettings settings = settings_of(count, words);
        for (const std::string& complaint : settings.complaints)
            log(job, {false, complaint});
        const JobRequest typed = request_of(spank);
        if (!needs_a_look(settings, typed) && typed.policy.empty() &&
            note_plain_job(settings, typed, place_of_job()))
            return;
        log(job, call_in_child(settings.limit, [&] { return start(settings, typed); }));
    });
}

EAS_CALLBACK int slurm_spank_job_epilog(spank_t spank, int count, char** words) {
    const uint32_t job = job_of(spank);
    return say_yes(job, [&] {
        const SiteSettings settings = settings_of(count, words);
        if (!has_records(settings))
            return;
        SlurmScheduler slurm(environment("SLURM_CLUSTER_NAME"), place_of_job().node);
        log(job, end_job(settings, job, slurm));
    });
}

EAS_CALLBACK int slurm_spank_init_post_opt(spank_t spank, int count, char** words) {
    if (spank_context() != S_CTX_REMOTE) {
        if (g_policy_given && !g_tag_given && environment("SLURM_JOB_ID").empty() &&
            parse_settings(count, words).tag != "jobname")
            slurm_error("--energy-policy does nothing without --energy-tag");
        return 0;
    }
    const uint32_t job = job_of(spank);
    return say_yes(job, [&] {
        const SiteSettings settings = parse_settings(count, words);
        if (has_own_frequency(spank) && has_records(settings))
            log(job, call_in_child(settings.limit, [&] { return yield_to_user(settings, job); }));
    });
}
