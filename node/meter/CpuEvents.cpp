#include <algorithm>
#include <cerrno>

#include "base/Numbers.h"
#include "node/files/CpuList.h"
#include "node/meter/CoreEvents.h"
#include "node/meter/Progress.h"

namespace eas::node {
namespace {

std::string on_cpu(const EventSet& events, int cpu) {
    return std::string(events.name) + " on CPU " + decimal(cpu);
}

}  // namespace

/// Whether an error means that the CPU went offline after it was listed: that is no failure.
bool CpuEvents::has_gone(int cpu, int error) {
    KeptFile::Buffer buffer;
    const auto text = error == ENODEV ? online_file_.read(buffer) : std::nullopt;
    const auto cpus = text ? parse_cpu_list(*text) : std::nullopt;
    return cpus && !std::binary_search(cpus->begin(), cpus->end(), cpu);
}

int CpuEvents::add_cpu(int cpu) {
    std::array<EventCode, most_events> codes{};
    std::copy_n(events_.codes, events_.count, codes.begin());
    for (const CorePmu& pmu : pmus_)
        if (std::binary_search(pmu.cpus.begin(), pmu.cpus.end(), cpu))
            for (EventCode& code : codes)
                code = pmu.of_this_kind(code);
    CpuGroup added{cpu, {}};
    const int error = added.group.open(codes.data(), events_.count, cpu);
    if (error == 0)
        groups_.push_back(std::move(added));
    return error;
}

bool CpuEvents::open(const EventSet& events, std::string& reason) {
    events_ = events;
    pmus_ = core_pmus();
    KeptFile::Buffer buffer;
    const auto text = online_file_.read(buffer);
    const auto cpus = text ? parse_cpu_list(*text) : std::nullopt;
    if (!cpus || cpus->empty()) {
        reason = text ? online_file_.path() + ": not a list of CPUs" : online_file_.reason();
        return false;
    }
    online_ = *text;
    groups_.reserve(cpus->size());
    for (const int cpu : *cpus) {
        const int error = add_cpu(cpu);
        if (error != 0 && !has_gone(cpu, error)) {
            reason = why_no_event(on_cpu(events_, cpu), error);
            groups_.clear();
            return false;
        }
    }
    if (groups_.empty())
        reason = why_no_event(events_.name, ENODEV);
    return !groups_.empty();
}

void CpuEvents::retire(CpuGroup& gone) {
    gone.group.update_singly();
    for (std::size_t i = 0; i < events_.count; ++i)
        retired_[i] += gone.group.totals()[i];
    gone.gone = true;
}

/// Opens what came online and gives up what is gone, where the list changed.
bool CpuEvents::follow_online_cpus(Result& result) {
    KeptFile::Buffer buffer;
    const auto text = online_file_.read(buffer);
    if (text && *text == online_)
        return true;
    const auto cpus = text ? parse_cpu_list(*text) : std::nullopt;
    if (!cpus) {
        result.end(text ? online_file_.path() + ": not a list of CPUs" : online_file_.reason());
        return false;
    }
    for (CpuGroup& group : groups_)
        if (!group.gone && !std::binary_search(cpus->begin(), cpus->end(), group.cpu))
            retire(group);
    groups_.erase(std::remove_if(groups_.begin(), groups_.end(),
                                 [](const CpuGroup& group) { return group.gone; }),
                  groups_.end());
    online_ = *text;
    for (const int cpu : *cpus) {
        const auto here = [cpu](const CpuGroup& group) { return group.cpu == cpu; };
        if (std::any_of(groups_.begin(), groups_.end(), here))
            continue;
        const int error = add_cpu(cpu);
        if (error != 0 && !has_gone(cpu, error)) {
            result.end(why_no_event(on_cpu(events_, cpu) + ", which came online", error));
            return false;
        }
    }
    return true;
}

/// Reads all groups; gives up those that no longer count.
void CpuEvents::read_groups(Result& result) {
    for (CpuGroup& group : groups_) {
        const auto who = [&] { return on_cpu(events_, group.cpu); };
        if (goes_on(group.group.update(), who, scaled_, result))
            continue;
        retire(group);    // the kernel took the group of a lost CPU apart
        online_.clear();  // it may be back already, so that the list is the same
    }
}

bool CpuEvents::read(EventTotals& totals, Result& result) {
    read_groups(result);
    // Only now: opening takes a while, in which what is read would grow.
    if (!follow_online_cpus(result))
        return false;
    totals.scaled = scaled_;
    totals.values = retired_;
    for (const CpuGroup& group : groups_)
        for (std::size_t i = 0; i < events_.count; ++i)
            totals.values[i] += group.group.totals()[i];
    return result.reason.empty();
}

}  // namespace eas::node
