// After a job's last task: the meter, the former frequency, the tag, the record of the run. Also
// what a step of the job may ask for in between.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "adapters/job/EasLibrary.h"
#include "adapters/job/FrequencyGuard.h"
#include "adapters/job/JobKeeper.h"
#include "adapters/job/JobOnNode.h"
#include "adapters/job/NodeFigures.h"
#include "adapters/job/UserName.h"

namespace eas::job {
namespace {

// Between questions for what the other nodes counted, ms.
constexpr int first_pause = 10;
constexpr int longest_pause = 500;

void add(Outcome& all, const Outcome& part) {
    all.good = all.good && part.good;
    all.text += (all.text.empty() || part.text.empty() ? "" : "; ") + part.text;
}

Outcome read_meter_again(const SiteSettings& settings, uint32_t job) {
    const StateFolder folder(settings.state);
    stop_keeper(folder, job, settings.limit);
    const std::optional<JobRecord> record = folder.read(job);
    return {true, record && record->figures ? describe(*record->figures) : ""};
}

Outcome give_back(const SiteSettings& settings, const JobRecord& record) {
    const std::string told = restore(settings, record.settings);
    return {true, "frequency set back" + (told.empty() ? "" : ", " + told)};
}

/// The reports of all nodes of the job, this one's first; those that come in time.
std::vector<NodeReport> collect(const SiteSettings& settings, const JobRecord& record,
                                Scheduler& scheduler) {
    std::vector<NodeReport> all;
    const auto deadline = std::chrono::steady_clock::now() + settings.patience() / 2;
    for (int pause = first_pause;; pause = std::min(2 * pause, longest_pause)) {
        all = {report_of(record)};
        if (!record.place.has_others())
            return all;
        for (NodeReport& one : scheduler.reports(record.request.job))
            if (one.node != record.place.node)
                all.push_back(std::move(one));
        if (all.size() >= record.place.nodes || std::chrono::steady_clock::now() > deadline)
            return all;
        ::poll(nullptr, 0, pause);
    }
}

void generate(const SiteSettings& settings, const JobRecord& record, const RunRecord& run) {
    EasLibrary::Measurement measured;
    measured.counters[0] = *run.cycles;
    measured.counters[1] = *run.instructions;
    measured.counters[2] = *run.bytes;
    measured.seconds = *run.seconds;
    measured.watts = *run.joules / *run.nodes / *run.seconds;
    EasLibrary(settings).generate(user_name(record.request.user), record.request.tag,
                                  std::to_string(record.request.job), measured);
}

/// Makes the tag, or says why there is none.
Outcome make_tag(const SiteSettings& settings, const JobRecord& record, WholeRun& whole,
                 bool holds_gpus) {
    const std::string tag = "tag \"" + record.request.tag + "\" ";
    RunRecord& run = whole.run;
    std::string why = whole.trouble.empty() ? whole.unlike : whole.trouble;
    if (why.empty())
        why = objection(run, settings.spread);
    if (why.empty() && holds_gpus && !covers_processors_alone(run.meter))
        why = "the job holds GPUs, which the meter (" + run.meter + ") counts, too";
    try {
        if (why.empty())
            generate(settings, record, run);
    } catch (const std::exception& error) {
        why = error.what();
    }
    run.outcome = why.empty() ? "measured" : "failed";
    run.reason = why;
    return {why.empty(), why.empty() ? tag + "generated" : tag + "not generated: " + why};
}

Outcome predict(const SiteSettings& settings, const JobRecord& record, RunRecord& run) {
    const auto tag = EasLibrary(settings).query(user_name(record.request.user), run.tag,
                                                static_cast<int>(run.frequency.value_or(0)));
    if (!tag || !tag->at || !tag->at_default)
        return {true, "no prediction: the tag has changed"};
    const double nodes = run.nodes.value_or(1);
    run.predicted_seconds = tag->at->seconds;
    run.predicted_joules = tag->at->seconds * tag->at->watts * nodes;
    run.default_seconds = tag->at_default->seconds;
    run.default_joules = tag->at_default->seconds * tag->at_default->watts * nodes;
    std::array<char, 80> text;
    std::snprintf(text.data(), text.size(), "predicted %.1f J in %.0f s", *run.predicted_joules,
                  *run.predicted_seconds);
    return {true, text.data()};
}

Outcome compare(const SiteSettings& settings, const JobRecord& record, RunRecord& run) {
    try {
        return predict(settings, record, run);
    } catch (const std::exception& error) {
        return {false, std::string("no prediction: ") + error.what()};
    }
}

/// What came of the run, into `run`.
Outcome judge(const SiteSettings& settings, const JobRecord& record, WholeRun& whole,
              Scheduler& scheduler) {
    RunRecord& run = whole.run;
    const bool measured = record.is_measured() || record.request.purpose() == Purpose::measure;
    const JobEnding ending = scheduler.ending_of(record.request.job);
    if (!ending.why_not_whole.empty() && whole.trouble.empty()) {
        run.outcome = "failed";
        run.reason = ending.why_not_whole;
        const std::string tag = "tag \"" + run.tag + "\" not generated: ";
        return {true, measured ? tag + run.reason : ""};
    }
    if (measured)
        return make_tag(settings, record, whole, ending.holds_gpus);
    if (!whole.trouble.empty()) {
        run.outcome = "failed";
        run.reason = whole.trouble;
        return {true, record.plan ? whole.trouble : ""};
    }
    run.outcome = record.request.purpose() == Purpose::observe ? "observed" : "used";
    if (!whole.unlike.empty())
        run.reason = whole.unlike;
    return run.outcome == "used" ? compare(settings, record, run) : Outcome{};
}

/// The first node's part, once its meter is read; the run goes into the job's record.
Outcome conclude(const SiteSettings& settings, const JobRecord& record, Scheduler& scheduler) {
    set_up_environment(settings);
    if (!record.place.is_first()) {
        scheduler.report(record.request.job, report_of(record).figures);
        return {};
    }
    WholeRun whole = combine(record, collect(settings, record, scheduler));
    Outcome outcome;
    if (record.place.has_others() && whole.run.joules)
        outcome.text = std::to_string(record.place.nodes) + " nodes: " + describe(whole.run);
    try {
        add(outcome, judge(settings, record, whole, scheduler));
    } catch (const std::exception& error) {
        add(outcome, {false, error.what()});
        whole.run.outcome = "failed";
        whole.run.reason = error.what();
    }
    StateFolder(settings.state).append(record.request.job, line::run(whole.run));
    return outcome;
}

void append_to_file(const std::string& path, const std::string& text) {
    const Descriptor file(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
    const bool done =
        file.is_open() && ::flock(file.get(), LOCK_EX) == 0 &&
        ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!done)
        throw std::runtime_error(path + ": " + std::strerror(errno));
}

Outcome keep_run(const SiteSettings& settings, const JobRecord& record, Scheduler& scheduler) {
    set_up_environment(settings);
    RunRecord run = *record.run;
    if (settings.record == "accounting") {
        scheduler.keep(record.request.job, run);
        return {};
    }
    run.cluster = settings.cluster;
    run.job = std::to_string(record.request.job);
    run.user = user_name(record.request.user);
    run.start = static_cast<double>(std::time(nullptr)) - std::floor(run.seconds.value_or(0));
    append_to_file(settings.record_file, to_text(run) + '\n');
    return {};
}

/// The record that could not be kept stands in the log at least.
Outcome keep_or_tell(const SiteSettings& settings, const JobRecord& record, Scheduler& scheduler) {
    Outcome kept =
        call_in_child(settings.limit, [&] { return keep_run(settings, record, scheduler); });
    if (!kept.good)
        kept.text = "record not kept: " + kept.text + ": " + to_text(*record.run);
    return kept;
}

}  // namespace

Outcome end_job(const SiteSettings& site, uint32_t job, Scheduler& scheduler) {
    const StateFolder folder(site.state);
    std::optional<JobRecord> record = folder.read(job);
    if (!record)
        return {};
    const SiteSettings settings = settings_of_node(site, record->place.type);
    Outcome outcome, figures;
    if (record->plan)  // the meter first: its figures are those of the job's frequency alone
        figures = call_in_child(settings.limit, [&] { return read_meter_again(settings, job); });
    if (!record->settings.empty())
        outcome = call_in_child(settings.limit, [&] { return give_back(settings, *record); });
    const bool given_back = outcome.good;
    add(outcome, figures);
    const bool concerns_others = record->place.is_first() || record->place.has_others();
    if (record->request.purpose() != Purpose::plain && concerns_others) {
        record = folder.read(job);
        add(outcome,
            call_in_child(settings.limit, [&] { return conclude(settings, *record, scheduler); }));
        record = folder.read(job);
    }
    if (record->run && settings.record != "none")
        add(outcome, keep_or_tell(settings, *record, scheduler));
    if (given_back)  // else the next start of a job on this node tries again
        folder.remove(job);
    return outcome;
}

Outcome yield_to_user(const SiteSettings& settings, uint32_t job) {
    const StateFolder folder(settings.state);
    const Descriptor lock = folder.lock(settings.patience());
    const std::optional<JobRecord> record = folder.read(job);
    const std::string reason = "the job asks for a frequency of its own (--cpu-freq)";
    if (!record || record->settings.empty())
        return {};
    give_up_frequency(settings, folder, *record, reason);
    return {true, reason + "; ours is set back"};
}

}  // namespace eas::job
