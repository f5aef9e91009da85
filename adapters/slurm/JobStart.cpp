// The prolog's part: left-overs, the job's record, the frequency.
#include <array>
#include <cstdio>
#include <stdexcept>

#include "adapters/slurm/FrequencyGuard.h"
#include "adapters/slurm/JobOnNode.h"
#include "adapters/slurm/UserName.h"

namespace eas::slurm {
namespace {

/// What other jobs mean for this one.
struct Neighbours {
    uint32_t running = 0;  // a job on this node; 0: none
    std::string done;      // what was done about them, and about dead ones
};

/// A CPU that refuses now, an offline one for instance, will refuse at the next prolog as well.
std::string clear_left_over(const StateFolder& folder, uint32_t job, const JobRecord& record) {
    std::string done = "set back the frequency that job " + std::to_string(job) + " left behind";
    try {
        restore(record.settings);
    } catch (const std::exception& error) {
        done += ", but " + std::string(error.what());
    }
    folder.remove(job);
    return record.settings.empty() ? "" : done;
}

/// The frequency is the whole node's: that of a job which came first would be this one's, too.
std::string clear_neighbour(const StateFolder& folder, const JobRecord& record, uint32_t newcomer) {
    if (record.settings.empty())
        return "";
    const std::string name = "the frequency of running job " + std::to_string(record.request.job);
    try {
        give_up_frequency(folder, record,
                          "job " + std::to_string(newcomer) + " ran on the node at the same time");
        return "set back " + name;
    } catch (const std::exception& error) {
        return name + ": " + error.what();
    }
}

/// Slurm is asked about another job only where the answer decides something.
Neighbours look_around(const StateFolder& folder, const JobRequest& request, const NodeRole& role) {
    Neighbours found;
    for (const uint32_t job : folder.jobs()) {
        const std::optional<JobRecord> record = folder.read(job);
        if (!record)
            continue;
        const bool decides = !record->settings.empty() || request.purpose() != Purpose::kPlain;
        const bool is_over = job == request.job || (decides && role.job_is_over(job));
        if (!is_over)
            found.running = job;
        const std::string done = is_over ? clear_left_over(folder, job, *record)
                                         : clear_neighbour(folder, *record, request.job);
        found.done += (found.done.empty() || done.empty() ? "" : "; ") + done;
    }
    return found;
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
    if (request.purpose() == Purpose::kMeasure) {
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
    folder.append(request.job, line::reading("start", read_meter(library)));
    return why;
}

}  // namespace

Outcome start_job(const PluginArguments& arguments, const JobRequest& request,
                  const NodeRole& role) {
    set_up_environment(arguments);
    const StateFolder folder(arguments.state);
    const Descriptor lock = folder.lock(arguments.lock_wait());
    Outcome outcome;
    const Neighbours neighbours = look_around(folder, request, role);
    outcome.text = neighbours.done;
    const auto tell = [&](const std::string& text) {
        outcome.text += (outcome.text.empty() ? "" : "; ") + text;
    };
    folder.create(request);
    if (request.purpose() == Purpose::kPlain)
        return outcome;
    if (!role.first)
        folder.append(request.job, line::other_node());
    try {
        if (neighbours.running != 0)
            throw std::runtime_error("job " + std::to_string(neighbours.running) +
                                     " runs on this node too");
        tell(set_up_node(folder, arguments, request));
    } catch (const std::exception& error) {
        outcome.good = false;
        give_up_frequency(folder, folder.read(request.job).value(), error.what());
        tell(std::string(error.what()) + "; frequency left as it is");
    }
    return outcome;
}

}  // namespace eas::slurm
