// Before a job's first task: left-overs, the job's record, the frequency, the meter.
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "adapters/job/FrequencyGuard.h"
#include "adapters/job/JobKeeper.h"
#include "adapters/job/JobOnNode.h"

namespace eas::job {
namespace {

// Between questions for what the first node chose, ms.
constexpr int first_pause = 25;
constexpr int longest_pause = 1000;

void tell(std::string& all, const std::string& text) {
    all += (all.empty() || text.empty() ? "" : "; ") + text;
}

/// What hindered it; empty: nothing. A CPU that refuses, an offline one for instance, may refuse
/// for ever.
std::string try_to_give_up(const SiteSettings& settings, const StateFolder& folder,
                           const JobRecord& record, const std::string& why) {
    try {
        give_up_frequency(settings, folder, record, why);
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
std::vector<Neighbour> protect(const SiteSettings& settings, const StateFolder& folder,
                               uint32_t newcomer) {
    std::vector<Neighbour> neighbours;
    for (const uint32_t job : folder.jobs()) {
        const std::optional<JobRecord> record = job == newcomer ? std::nullopt : folder.read(job);
        if (!record)
            continue;
        Neighbour neighbour{job, !record->settings.empty(), ""};
        if (neighbour.had_frequency)
            neighbour.trouble = try_to_give_up(
                settings, folder, *record, name_of(newcomer) + " ran on the node at the same time");
        neighbours.push_back(neighbour);
    }
    return neighbours;
}

/// Clears the records of dead jobs; a job that runs on the node, or 0. Slurm is asked only where
/// the answer decides something: it may not answer before this process is ended.
uint32_t clear_up(const StateFolder& folder, const std::vector<Neighbour>& neighbours,
                  const JobRequest& request, Scheduler& scheduler, std::string& done) {
    uint32_t running = 0;
    for (const Neighbour& neighbour : neighbours) {
        if (!neighbour.had_frequency && request.purpose() == Purpose::plain)
            continue;
        const bool is_over = scheduler.job_is_over(neighbour.job);
        if (is_over)
            folder.remove(neighbour.job);
        else
            running = neighbour.job;
        tell(done, neighbour.describe(is_over));
    }
    return running;
}

/// The frequency for a job on several nodes: the first one chooses, the others are told.
RunRecord agreed_plan(const SiteSettings& settings, const JobRequest& request,
                      const JobPlace& place, Scheduler& scheduler, std::string& why) {
    if (place.is_first()) {
        RunRecord plan = make_plan(settings, request, why);
        scheduler.announce(request.job, plan);
        return plan;
    }
    const auto deadline = std::chrono::steady_clock::now() + settings.patience();
    int pause = first_pause;
    do {
        if (const std::optional<RunRecord> plan = scheduler.announced(request.job)) {
            if (plan->outcome == "failed")
                throw std::runtime_error(plan->reason);
            why = (plan->policy.empty() ? "measuring for" : plan->policy + " of") + " tag \"" +
                  plan->tag + "\": " + std::to_string(static_cast<int>(*plan->frequency)) +
                  " kHz, as " + place.first + " says";
            return *plan;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        ::poll(nullptr, 0, std::clamp(static_cast<int>(left.count()), 0, pause));
        pause = std::min(2 * pause, longest_pause);
    } while (std::chrono::steady_clock::now() < deadline);
    throw std::runtime_error("no word from " + place.first);
}

/// Whoever came while the library was asked began with a record of its own.
void expect_no_newcomer(const StateFolder& folder, uint32_t own) {
    for (const uint32_t job : folder.jobs())
        if (job != own)
            throw std::runtime_error(name_of(job) + " runs on this node too");
}

std::string set_up_node(const StateFolder& folder, const SiteSettings& settings,
                        const JobRequest& request, const JobPlace& place, Scheduler& scheduler) {
    std::string why;
    const bool alone = !place.has_others() || request.purpose() == Purpose::observe;
    const RunRecord plan = alone ? make_plan(settings, request, why)
                                 : agreed_plan(settings, request, place, scheduler, why);
    folder.append(request.job, line::plan(plan));
    if (plan.frequency)
        set_frequency(NodeLibrary(settings.node_library), folder, request.job,
                      static_cast<int>(*plan.frequency));
    expect_no_newcomer(folder, request.job);
    start_keeper(settings, request.job, place, scheduler);
    return why;
}

/// A job that starts once more may have left a record when it ran here before.
std::string begin_record(const SiteSettings& settings, const StateFolder& folder,
                         const JobRequest& request, const JobPlace& place) {
    std::string done;
    if (const std::optional<JobRecord> former = folder.read(request.job)) {
        Neighbour itself{request.job, !former->settings.empty(), ""};
        if (itself.had_frequency)
            itself.trouble = try_to_give_up(settings, folder, *former, "the job starts again");
        done = itself.describe(true);
    }
    folder.create(request, place);
    return done;
}

/// The rest, with the node's other jobs out of the way.
void settle_in(const StateFolder& folder, const SiteSettings& settings, const JobRequest& request,
               const JobPlace& place, Scheduler& scheduler, std::string& done) {
    Descriptor lock;
    std::string no_lock;
    try {
        lock = folder.lock(settings.patience());
    } catch (const std::exception& error) {  // neighbours are set back all the same
        no_lock = error.what();
    }
    const std::vector<Neighbour> neighbours = protect(settings, folder, request.job);
    if (!no_lock.empty()) {
        for (const Neighbour& neighbour : neighbours)
            tell(done, neighbour.describe(false));
        throw std::runtime_error(no_lock);
    }
    const uint32_t running = clear_up(folder, neighbours, request, scheduler, done);
    if (request.purpose() == Purpose::plain)
        return;
    if (running != 0)
        throw std::runtime_error(name_of(running) + " runs on this node too");
    tell(done, set_up_node(folder, settings, request, place, scheduler));
}

std::string leave_frequency(const SiteSettings& settings, const StateFolder& folder, uint32_t job,
                            const std::string& why) {
    try {
        if (const std::optional<JobRecord> record = folder.read(job))
            give_up_frequency(settings, folder, *record, why);
        return "frequency left as it is";
    } catch (const std::exception& error) {
        return error.what();
    }
}

/// The nodes of a job run at one frequency or none of them is set.
void call_off(const SiteSettings& settings, const JobRequest& request, const JobPlace& place,
              Scheduler& scheduler, const std::string& why, std::string& done) {
    if (!place.has_others() || request.purpose() == Purpose::observe)
        return;
    try {
        const std::optional<RunRecord> former = scheduler.announced(request.job);
        if (former && former->outcome == "failed")
            return;
        RunRecord record = former.value_or(RunRecord{});
        record.outcome = "failed";
        record.tag = request.tag;
        record.type = settings.type;
        record.frequency.reset();
        record.reason = place.node + ": " + why;
        scheduler.announce(request.job, record);
        tell(done, "called off for the whole job");
    } catch (const std::exception& error) {
        tell(done, error.what());
    }
}

}  // namespace

bool note_plain_job(const SiteSettings& settings, const JobRequest& request,
                    const JobPlace& place) {
    const StateFolder folder(settings.state);
    if (request.purpose() != Purpose::plain || folder.read(request.job))
        return false;
    folder.create(request, place);  // first, as below
    return folder.jobs() == std::vector<uint32_t>{request.job};
}

// The record comes first: a job that comes later, or that starts at this moment, sees by it that
// the node is shared, whatever becomes of this process.
Outcome start_job(const SiteSettings& settings, const JobRequest& request, const JobPlace& place,
                  Scheduler& scheduler) {
    set_up_environment(settings);
    const StateFolder folder(settings.state);
    Outcome outcome;
    outcome.text = begin_record(settings, folder, request, place);
    try {
        settle_in(folder, settings, request, place, scheduler, outcome.text);
    } catch (const std::exception& error) {
        outcome.good = false;
        tell(outcome.text, error.what());
        if (request.purpose() == Purpose::plain)
            return outcome;
        tell(outcome.text, leave_frequency(settings, folder, request.job, error.what()));
        call_off(settings, request, place, scheduler, error.what(), outcome.text);
    }
    return outcome;
}

}  // namespace eas::job
