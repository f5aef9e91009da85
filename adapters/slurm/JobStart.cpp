// The prolog's part: left-overs, the job's record, the frequency.
#include <array>
#include <cstdio>
#include <stdexcept>

#include "adapters/slurm/FrequencyGuard.h"
#include "adapters/slurm/JobOnNode.h"
#include "adapters/slurm/UserName.h"

namespace eas::slurm {
namespace {

void tell(std::string& all, const std::string& text) {
    all += (all.empty() || text.empty() ? "" : "; ") + text;
}

/// What hindered it; empty: nothing. A CPU that refuses, an offline one for instance, may refuse
/// for ever.
std::string try_to_give_up(const StateFolder& folder, const JobRecord& record,
                           const std::string& why) {
    try {
        give_up_frequency(folder, record, why);
        return "";
    } catch (const std::exception& error) {
        return error.what();
    }
}

std::string name_of(uint32_t job) {
    return "job " + std::to_string(job);
}

/// Another job that has a record on the node, dead or alive.
struct Neighbour {
    uint32_t job = 0;
    bool had_frequency = false;  // it was set back
    std::string trouble;         // in doing so

    [[nodiscard]] std::string describe(bool is_over) const {
        if (!had_frequency)
            return "";
        return "set back the frequency " +
               (is_over ? "that " + name_of(job) + " left behind" : "of running " + name_of(job)) +
               (trouble.empty() ? "" : ", but " + trouble);
    }
};

/// The frequency is the whole node's: that of a job which came first would be this one's, too.
std::vector<Neighbour> protect(const StateFolder& folder, uint32_t newcomer) {
    std::vector<Neighbour> neighbours;
    for (const uint32_t job : folder.jobs()) {
        const std::optional<JobRecord> record = job == newcomer ? std::nullopt : folder.read(job);
        if (!record)
            continue;
        Neighbour neighbour{job, !record->settings.empty(), ""};
        if (neighbour.had_frequency)
            neighbour.trouble = try_to_give_up(
                folder, *record, name_of(newcomer) + " ran on the node at the same time");
        neighbours.push_back(neighbour);
    }
    return neighbours;
}

/// Clears the records of dead jobs; a job that runs on the node, or 0. Slurm is asked only where
/// the answer decides something: it may not answer before this process is ended.
uint32_t clear_up(const StateFolder& folder, const std::vector<Neighbour>& neighbours,
                  const JobRequest& request, const NodeRole& role, std::string& done) {
    uint32_t running = 0;
    for (const Neighbour& neighbour : neighbours) {
        if (!neighbour.had_frequency && request.purpose() == Purpose::plain)
            continue;
        const bool is_over = role.job_is_over(neighbour.job);
        if (is_over)
            folder.remove(neighbour.job);
        else
            running = neighbour.job;
        tell(done, neighbour.describe(is_over));
    }
    return running;
}

std::string percent(double change) {
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), "%+.1f %%", change * 100);
    return text.data();
}

/// The frequency for the job, and why.
int choose(const EasLibrary& library, const PluginArguments& arguments, const JobRequest& request,
           std::string& why) {
    if (arguments.default_frequency == 0)
        throw std::runtime_error("plugstack.conf gives no default_frequency");
    if (request.purpose() == Purpose::measure) {
        why = "measuring for tag \"" + request.tag + "\" at " +
              std::to_string(arguments.default_frequency) + " kHz";
        return arguments.default_frequency;
    }
    std::string cluster = arguments.cluster, user = user_name(request.user), tag = request.tag,
                policy = request.policy;
    int frequency = 0;
    double change = 0;
    initialize(library, arguments);
    const int code =
        library.select_frequency(cluster.data(), arguments.default_frequency, user.data(),
                                 tag.data(), policy.data(), &frequency, &change);
    if (code != EAS_OK)
        throw std::runtime_error("tag \"" + tag + "\" of " + user + ": " + select_refusal(code));
    why = policy + " of tag \"" + tag + "\": " + std::to_string(frequency) +
          " kHz, run time expected to change by " + percent(change);
    return frequency;
}

/// Whoever came while the library was asked began with a record of its own.
void expect_no_newcomer(const StateFolder& folder, uint32_t own) {
    for (const uint32_t job : folder.jobs())
        if (job != own)
            throw std::runtime_error(name_of(job) + " runs on this node too");
}

std::string set_up_node(const StateFolder& folder, const PluginArguments& arguments,
                        const JobRequest& request) {
    std::string why;
    const EasLibrary library(arguments.library);
    const int frequency = choose(library, arguments, request, why);
    const std::vector<CpuSetting> settings = read_settings(library);
    std::string lines;
    for (const CpuSetting& setting : settings)
        lines += line::setting(setting);
    folder.append(request.job, lines);  // before anything changes
    apply_frequency(library, settings, frequency);
    expect_no_newcomer(folder, request.job);
    folder.append(request.job, line::reading("start", read_meter(library)));
    return why;
}

/// A job that starts once more may have left a record when it ran here before.
std::string begin_record(const StateFolder& folder, const JobRequest& request, bool first_node) {
    std::string done;
    if (const std::optional<JobRecord> former = folder.read(request.job)) {
        Neighbour itself{request.job, !former->settings.empty(), ""};
        if (itself.had_frequency)
            itself.trouble = try_to_give_up(folder, *former, "the job starts again");
        done = itself.describe(true);
    }
    folder.create(request);
    if (!first_node)
        folder.append(request.job, line::other_node());
    return done;
}

/// The rest of the prolog, with the node's other jobs out of the way.
void settle_in(const StateFolder& folder, const PluginArguments& arguments,
               const JobRequest& request, const NodeRole& role, std::string& done) {
    Descriptor lock;
    std::string no_lock;
    try {
        lock = folder.lock(arguments.lock_wait());
    } catch (const std::exception& error) {  // neighbours are set back all the same
        no_lock = error.what();
    }
    const std::vector<Neighbour> neighbours = protect(folder, request.job);
    if (!no_lock.empty()) {
        for (const Neighbour& neighbour : neighbours)
            tell(done, neighbour.describe(false));
        throw std::runtime_error(no_lock);
    }
    const uint32_t running = clear_up(folder, neighbours, request, role, done);
    if (request.purpose() == Purpose::plain)
        return;
    if (running != 0)
        throw std::runtime_error(name_of(running) + " runs on this node too");
    tell(done, set_up_node(folder, arguments, request));
}

std::string leave_frequency(const StateFolder& folder, uint32_t job, const std::string& why) {
    try {
        if (const std::optional<JobRecord> record = folder.read(job))
            give_up_frequency(folder, *record, why);
        return "frequency left as it is";
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace

// The record comes first: a job that comes later, or whose prolog runs at this moment, sees by it
// that the node is shared, whatever becomes of this process.
Outcome start_job(const PluginArguments& arguments, const JobRequest& request,
                  const NodeRole& role) {
    set_up_environment(arguments);
    const StateFolder folder(arguments.state);
    Outcome outcome;
    outcome.text = begin_record(folder, request, role.first);
    try {
        settle_in(folder, arguments, request, role, outcome.text);
    } catch (const std::exception& error) {
        outcome.good = false;
        tell(outcome.text, error.what());
        if (request.purpose() != Purpose::plain)
            tell(outcome.text, leave_frequency(folder, request.job, error.what()));
    }
    return outcome;
}

}  // namespace eas::slurm
