// The epilog's part: the meter, the former frequency, the tag. Also what a step of the job may ask
// for in between.
#include <array>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "adapters/slurm/FrequencyGuard.h"
#include "adapters/slurm/JobOnNode.h"
#include "adapters/slurm/JobQuery.h"
#include "adapters/slurm/UserName.h"

namespace eas::slurm {
namespace {

/// What the meter says of a job.
struct Consumption {
    double seconds = 0;
    double joules = 0;  // 0: the meter tells nothing

    [[nodiscard]] double watts() const { return joules / seconds; }
};

Consumption consumption_of(const JobRecord& record) {
    Consumption used;
    if (!record.start || !record.end)
        return used;
    used.seconds = static_cast<double>(record.end->time - record.start->time) / 1e9;
    // A meter that was started again in between tells nothing.
    if (record.start->microjoules > 0 && record.end->microjoules > record.start->microjoules)
        used.joules =
            static_cast<double>(record.end->microjoules - record.start->microjoules) / 1e6;
    return used;
}

std::string describe(const Consumption& used) {
    std::array<char, 80> text;
    if (used.joules > 0)
        std::snprintf(text.data(), text.size(), "%.1f J in %.2f s, mean %.1f W", used.joules,
                      used.seconds, used.watts());
    else
        std::snprintf(text.data(), text.size(), "%.2f s, no energy meter", used.seconds);
    return text.data();
}

/// The library reads names that are stored as printf does.
std::string with_percents_doubled(const std::string& name) {
    std::string doubled;
    for (const char c : name)
        doubled.append(c == '%' ? 2 : 1, c);
    return doubled;
}

/// Why the figures of the job make no tag; empty: they do.
std::string objection(const JobRecord& record, const Consumption& used) {
    if (!record.disturbed.empty())
        return record.disturbed;
    if (!record.start || !record.end)
        return std::string("the energy meter was not read at the job's ") +
               (record.start ? "end" : "start");
    if (used.seconds < 1)
        return "the job ran for less than a second";
    if (used.joules <= 0)
        return "the energy meter of this node is not supported";
    if (!record.usage.gap.empty())
        return record.usage.gap;
    if (record.usage.samples == 0)
        return "no step of the job was counted";
    if (record.usage.cycles <= 0 || record.usage.instructions <= 0 ||
        record.usage.memory_bytes <= 0)
        return "the counters of this node are not supported";
    return "";
}

void generate(const PluginArguments& arguments, const JobRecord& record, const Consumption& used) {
    const EasLibrary library(arguments.library);
    initialize(library, arguments);
    std::string cluster = with_percents_doubled(arguments.cluster),
                user = with_percents_doubled(user_name(record.request.user)),
                tag = record.request.tag, job = std::to_string(record.request.job);
    std::array<double, 3> counters = {record.usage.cycles, record.usage.instructions,
                                      record.usage.memory_bytes};
    const int code = library.generate_tag(
        cluster.data(), arguments.default_frequency, user.data(), tag.data(), counters.data(),
        job.data(), static_cast<int>(std::lround(used.seconds)), used.watts());
    if (code != EAS_OK)
        throw std::runtime_error(generate_refusal(code));
}

}  // namespace

Outcome give_back(const PluginArguments& arguments, uint32_t job) {
    const std::optional<JobRecord> record = StateFolder(arguments.state).read(job);
    if (!record || record->settings.empty())
        return {};
    restore(record->settings);
    return {true, "frequency set back"};
}

Outcome read_meter_again(const PluginArguments& arguments, uint32_t job) {
    set_up_environment(arguments);
    const StateFolder folder(arguments.state);
    std::optional<JobRecord> record = folder.read(job);
    if (!record || !record->start)
        return {};
    record->end = read_meter(EasLibrary(arguments.library));
    folder.append(job, line::reading("end", *record->end));
    std::string text = describe(consumption_of(*record));
    if (record->request.purpose() == Purpose::select && !record->disturbed.empty())
        text += "; " + record->disturbed;
    return {true, text};
}

Outcome make_tag(const PluginArguments& arguments, const JobRecord& record) {
    set_up_environment(arguments);
    const std::string tag = "tag \"" + record.request.tag + "\" ";
    const std::string refused = tag + "not generated: ";
    try {
        const Consumption used = consumption_of(record);
        if (const std::string why = objection(record, used); !why.empty())
            return {false, refused + why};
        if (const std::string why = why_not_completed(record.request.job); !why.empty())
            return {true, refused + why};
        generate(arguments, record, used);
        return {true, tag + "generated"};
    } catch (const std::exception& error) {
        return {false, refused + error.what()};
    }
}

Outcome yield_to_user(const PluginArguments& arguments, uint32_t job) {
    const StateFolder folder(arguments.state);
    const Descriptor lock = folder.lock(arguments.lock_wait());
    const std::optional<JobRecord> record = folder.read(job);
    const std::string reason = "the job asks for a frequency of its own (--cpu-freq)";
    if (!record || record->settings.empty())
        return {};
    give_up_frequency(folder, *record, reason);
    return {true, reason + "; ours is set back"};
}

}  // namespace eas::slurm
