// easctl job begin and easctl job end: what a scheduler's prolog and epilog do for a job on a node.
#include <pwd.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <memory>

#include "adapters/job/JobOnNode.h"
#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/job/FolderScheduler.h"

namespace easctl {
namespace {

using eas::job::JobPlace;
using eas::job::JobRequest;
using eas::job::Outcome;
using eas::job::SiteSettings;

struct JobCommandOptions {
    std::string config = "/etc/eas/job.conf";
    int job = 0;
    std::string run, node, nodes, features, share;
    // begin
    std::string user, name, tag, policy;
    bool shares_nodes = false;
    std::vector<int> running;
    bool running_given = false;
    // end
    std::string failed;
    int exit_code = 0;
    bool gpus = false;
};

std::string name_of_node() {
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0)
        return "localhost";
    const std::string full = name.data();
    return full.substr(0, full.find('.'));
}

/// A name, or a number.
std::uint32_t user_id(const std::string& text) {
    if (const passwd* const found = ::getpwnam(text.c_str()))
        return found->pw_uid;
    std::uint32_t id = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, id);
    if (error != std::errc() || stop != end)
        throw Failure(ExitCode::usage, "--user " + text + ": this node knows no such user");
    return id;
}

SiteSettings settings_of(const JobCommandOptions& options, const Globals& globals) {
    if (options.config.front() != '/')
        throw Failure(ExitCode::usage, "--config " + options.config + ": a path from the root on");
    const std::string word = "config=" + options.config;
    const std::array<const char*, 2> words{"state=/run/eas-job", word.c_str()};
    SiteSettings settings = eas::job::parse_settings(2, words.data());
    for (const std::string& complaint : settings.complaints)
        remark(globals, complaint);
    if (settings.default_frequency == 0 || settings.cluster.empty())
        throw Failure(ExitCode::input, options.config + ": no default_frequency= or no cluster=",
                      "examples/hooks/job.conf is a sample");
    return settings_of_node(settings, options.features);
}

JobPlace place_of(const JobCommandOptions& options, const SiteSettings& settings) {
    const std::string nodes = options.nodes.empty() ? options.node : options.nodes;
    return {options.node, eas::job::first_node(nodes), eas::job::number_of_nodes(nodes),
            settings.type};
}

FolderScheduler scheduler_of(const JobCommandOptions& options) {
    JobFacts facts{options.node, options.run, options.share, std::nullopt, {}};
    if (facts.run.empty())
        facts.run = std::to_string(options.job);
    if (options.running_given)
        facts.running.emplace(options.running.begin(), options.running.end());
    facts.ending.holds_gpus = options.gpus;
    facts.ending.why_not_whole = options.failed;
    if (options.failed.empty() && options.exit_code != 0)
        facts.ending.why_not_whole = "the job failed";
    return FolderScheduler(std::move(facts));
}

/// What is wrong with what a user asked for; empty: it may be used.
std::string objection_to(const JobCommandOptions& options) {
    if (!options.tag.empty() && !eas::job::is_tag_name(options.tag))
        return "--tag: a name is 1 to 255 letters, digits, _, . or -; ignored";
    if (!options.policy.empty() && !eas::job::is_policy(options.policy))
        return "--policy: minimize_energy, minimize_time or none; ignored";
    return "";
}

/// A job that asks for nothing that may be had is noted all the same: it shares the node.
JobRequest request_of(const JobCommandOptions& options, const SiteSettings& settings) {
    JobRequest request{static_cast<std::uint32_t>(options.job), user_id(options.user), "", "",
                       false};
    const bool opts_out = options.tag.empty() && options.policy == "none";
    if (opts_out || options.shares_nodes || !objection_to(options).empty())
        return request;
    request.observed = settings.observe == "yes";
    request.tag = options.tag;
    if (request.tag.empty() && settings.tag == "jobname")
        request.tag = eas::job::tag_of_name(options.name);
    request.policy = options.policy.empty() ? settings.default_policy : options.policy;
    return request;
}

void show(const Outcome& outcome, int job, Globals& globals) {
    if (globals.json)
        print_json({{"job", job}, {"ok", outcome.good}, {"text", outcome.text}});
    else if (!outcome.text.empty())
        print("job " + std::to_string(job) + ": " + printable(outcome.text) + "\n");
    if (!outcome.good)
        globals.outcome = ExitCode::found;
}

void run_begin(const JobCommandOptions& options, Globals& globals) {
    const SiteSettings settings = settings_of(options, globals);
    const JobPlace place = place_of(options, settings);
    const JobRequest request = request_of(options, settings);
    FolderScheduler scheduler = scheduler_of(options);
    Outcome outcome = eas::job::call_in_child(
        settings.limit, [&] { return eas::job::start_job(settings, request, place, scheduler); });
    if (const std::string objection = objection_to(options); !objection.empty())
        outcome = {false, objection + (outcome.text.empty() ? "" : "; ") + outcome.text};
    show(outcome, options.job, globals);
}

void run_end(const JobCommandOptions& options, Globals& globals) {
    const SiteSettings settings = settings_of(options, globals);
    FolderScheduler scheduler = scheduler_of(options);
    Outcome outcome =
        eas::job::end_job(settings, static_cast<std::uint32_t>(options.job), scheduler);
    try {
        if (place_of(options, settings).is_first())
            scheduler.forget();
    } catch (const std::exception& error) {  // the job's own line is what the log needs
        outcome = {false, outcome.text + (outcome.text.empty() ? "" : "; ") + error.what()};
    }
    show(outcome, options.job, globals);
}

/// A name that is part of a file's name.
Check file_name() {
    return Check([](std::string& text) -> std::string {
        const bool good = !text.empty() && text.front() != '.' &&
                          text.find('/') == std::string::npos && text.size() < 200;
        return good ? "" : "not a name that a file may have: \"" + printable(text) + '"';
    });
}

using Options = std::shared_ptr<JobCommandOptions>;

void add_common_options(CLI::App& command, const Options& options) {
    add_option(command, "--job", options->job, "the job's number")
        .required()
        .check(whole_number_from(1, std::numeric_limits<int>::max()))
        .type_name("NUMBER");
    options->node = name_of_node();
    add_option(command, "--node", options->node, "name of this node in the list of nodes")
        .check(file_name())
        .show_default()
        .type_name("NAME");
    add_option(command, "--nodes", options->nodes,
               "the job's nodes, as n[1-3],m7; the first one decides for all (without: this one)")
        .type_name("LIST");
    add_option(command, "--share", options->share,
               "folder of root's on a file system that all nodes share; for jobs of several nodes")
        .type_name("FOLDER");
    add_option(command, "--run", options->run,
               "tells this run of the job from others of its number (without: the number)")
        .check(file_name())
        .type_name("TEXT");
    add_option(command, "--features", options->features,
               "of this node, separated by commas; for sites with several types of nodes")
        .type_name("LIST");
    add_option(command, "--config", options->config, "what the site decided for its jobs")
        .check(some_text())
        .show_default()
        .type_name("FILE");
}

void add_begin_command(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<JobCommandOptions>();
    CLI::App& command = add_command(
        group, "begin", "sets up this node for a job, before its first task",
        "easctl job begin --job 4711 --user anna --tag solve\n"
        "easctl job begin --job 4712 --user anna --tag solve --policy minimize_energy\n"
        "easctl job begin --job 4713 --user anna --tag solve --policy minimize_energy \\\n"
        "    --nodes n[1-8] --share /shared/eas");
    add_common_options(command, options);
    add_option(command, "--user", options->user, "the job's owner").required().type_name("NAME");
    add_option(command, "--tag", options->tag, "the name under which the job is measured")
        .type_name("NAME");
    add_option(command, "--policy", options->policy,
               "minimize_energy, minimize_time, or none: leave the job alone, or measure its tag")
        .type_name("POLICY");
    add_option(command, "--name", options->name, "the job's name; its tag where tag=jobname is set")
        .type_name("NAME");
    add_flag(command, "--shares-nodes", options->shares_nodes,
             "others may run beside the job: it is noted and nothing is set");
    const Option running =
        add_option(command, "--running", options->running,
                   "the jobs that run on this node (without: none, nodes are not shared)")
            .delimiter(',')
            .type_name("NUMBERS");
    set_action(command, [options, running, &globals] {
        options->running_given = running.given();
        run_begin(*options, globals);
    });
}

void add_end_command(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<JobCommandOptions>();
    CLI::App& command =
        add_command(group, "end", "gives this node back after a job's last task, and makes its tag",
                    "easctl job end --job 4711\n"
                    "easctl job end --job 4711 --exit-code 1\n"
                    "easctl job end --job 4711 --failed \"the job was cancelled\"");
    add_common_options(command, options);
    add_option(command, "--exit-code", options->exit_code,
               "of the job; a job that failed makes no tag")
        .type_name("CODE");
    add_option(command, "--failed", options->failed,
               "why the job's figures are not those of a whole run: it was cancelled, for instance")
        .type_name("REASON");
    add_flag(command, "--gpus", options->gpus,
             "the job held GPUs, which a meter of the whole node counts, too");
    set_action(command, [options, &globals] { run_end(*options, globals); });
}

}  // namespace

void add_job_commands(CLI::App& app, Globals& globals) {
    CLI::App& group =
        add_group(app, "job", "a job on this node, for the prolog and epilog of any scheduler");
    add_begin_command(group, globals);
    add_end_command(group, globals);
}

}  // namespace easctl
