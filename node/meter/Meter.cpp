#include "node/meter/Meter.h"

#include <algorithm>
#include <ctime>

#include "node/Edge.h"
#include "node/meter/DescriptorRoom.h"

namespace eas::node {
namespace {

/// The list whose source gives a figure.
SourceList list_of(int figure) {
    if (figure == EASNODE_MEMORY)
        return SourceList::memory;
    return figure == EASNODE_ENERGY ? SourceList::energy : SourceList::core;
}

}  // namespace

Nanoseconds monotonic_now() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<Nanoseconds>(now.tv_sec) * 1'000'000'000 +
           static_cast<Nanoseconds>(now.tv_nsec);
}

Meter::Meter(MeterPlan plan) : request_(std::move(plan.request)) {
    const DescriptorRoom room;
    request_.now = monotonic_now();
    for (const SourceList list : {SourceList::core, SourceList::memory, SourceList::energy})
        open_slot(list, plan.order[static_cast<std::size_t>(list)]);
}

std::string Meter::why_none_serves(const std::vector<Candidate>& tried) {
    if (tried.empty())
        return "not asked for";
    if (tried.size() == 1)
        return tried.front().reason;
    std::string names;
    for (const Candidate& candidate : tried)
        names += (names.empty() ? "" : ", ") + std::string(candidate.row->name);
    return "none of the sources serves: " + names;
}

void Meter::open_slot(SourceList list, const std::vector<const SourceRow*>& order) {
    Slot& slot = slots_[static_cast<std::size_t>(list)];
    for (const SourceRow* row : order) {
        Candidate candidate{row, EASNODE_NOT_TRIED, {}};
        if (slot.source == nullptr) {
            slot.source = row->open(request_, candidate.reason);
            candidate.state = slot.source != nullptr ? EASNODE_SERVES : EASNODE_REFUSED;
            if (slot.source != nullptr)
                slot.name = row->name;
        }
        slot.candidates.push_back(std::move(candidate));
    }
    if (slot.source == nullptr)
        slot.why_none = why_none_serves(slot.candidates);
    for (const SourceRow* row : sources_of(list))
        if (std::find(order.begin(), order.end(), row) == order.end())
            slot.candidates.push_back({row, EASNODE_NOT_WANTED, {}});
}

void Meter::read_slot(Slot& slot, Nanoseconds now) {
    if (slot.source == nullptr || slot.result.ended)
        return;
    slot.result = {};
    slot.source->read(now, slot.result);
}

void Meter::fill(const Slot& slot, std::size_t value, easnode_figure& figure) {
    figure = {};
    fill_text(figure.source, slot.name);
    if (slot.source == nullptr) {
        fill_text(figure.reason, slot.why_none);
        return;
    }
    if (!slot.result.reason.empty()) {
        fill_text(figure.reason, slot.result.reason);
        return;
    }
    const Coverage& coverage = slot.source->coverage();
    figure.value = slot.result.values[value];
    figure.quality = slot.result.quality;
    figure.extent = coverage.extent;
    figure.read_within_ns = coverage.read_within;
    fill_text(figure.covers, coverage.words);
}

void Meter::read(easnode_reading& reading) {
    const Nanoseconds now = monotonic_now();
    // Joules first: they are held against the time.
    for (const SourceList list : {SourceList::energy, SourceList::memory, SourceList::core})
        read_slot(slots_[static_cast<std::size_t>(list)], now);
    reading.time_ns = now - request_.now;
    const auto slot = [this](SourceList list) -> const Slot& {
        return slots_[static_cast<std::size_t>(list)];
    };
    fill(slot(SourceList::core), 0, reading.cycles);
    fill(slot(SourceList::core), 1, reading.instructions);
    fill(slot(SourceList::memory), 0, reading.memory);
    fill(slot(SourceList::energy), 0, reading.energy);
}

bool Meter::describe(int figure, std::size_t index, easnode_source& source) const {
    const Slot& slot = slots_[static_cast<std::size_t>(list_of(figure))];
    if (index >= slot.candidates.size())
        return false;
    const Candidate& candidate = slot.candidates[index];
    source.state = candidate.state;
    fill_text(source.name, candidate.row->name);
    if (candidate.state == EASNODE_SERVES) {
        source.extent = slot.source->coverage().extent;
        fill_text(source.text, slot.source->coverage().words);
    } else {
        fill_text(source.text, candidate.reason);
    }
    return true;
}

}  // namespace eas::node
