// Memory traffic of Arm servers: by the PMUs of their memory controllers and interconnects, as far
// as the kernel says what a count of them is worth. Many drivers name their events without a unit,
// and a number of accesses of unknown size is no traffic.
#include <array>

#include "node/meter/BoxEvents.h"

namespace eas::node {
namespace {

/// The PMUs of a maker, a shell pattern, and their events that are reads and writes; those of the
/// last rows are recognised only.
struct ArmRow {
    const char* pmus;
    std::array<const char*, 2> events;
};
constexpr ArmRow arm_rows[] = {
    {"hisi_sccl*_ddrc*", {"flux_rd", "flux_wr"}},  // memory controllers
    {"arm_cmn_*", {"hnf_mc_reqs", nullptr}},       // mesh: requests to the memory controllers
    {"nvidia_scf_pmu_*", {}},                      // fabric of a socket
    {"arm_dmc620_*", {}},                          // memory controllers
};

/// The events of a device in bytes; empty where it lacks one, or does not say its unit.
std::vector<BoxEvent> events_of(const PmuDevice& device, const ArmRow& row) {
    std::vector<BoxEvent> events;
    for (const char* name : row.events) {
        if (name == nullptr)
            continue;
        const auto event = device.event(name);
        if (!event || event->unit != "MiB")
            return {};
        events.push_back({event->config, event->scale * mebibyte});
    }
    return events;
}

class ArmMemory : public Source {
  public:
    bool open(std::string& reason) {
        coverage_ = {EASNODE_NODE, "memory controllers, all sockets, read+write", 0};
        reason = "no PMU of an Arm memory controller or mesh";
        for (const ArmRow& row : arm_rows) {
            const auto devices = find_pmus_like(row.pmus);
            if (!devices.empty())
                return open_all(devices, row, reason);
        }
        return false;
    }

    void read(Nanoseconds, Result& result) override {
        boxes_.read(result);
        if (result.reason.empty() && result.values[0] == 0)
            result.wait_for("no traffic has been counted since the meter was opened");
    }

  private:
    bool open_all(const std::vector<PmuDevice>& devices, const ArmRow& row, std::string& reason) {
        for (const PmuDevice& device : devices) {
            const auto events = events_of(device, row);
            if (events.empty()) {
                reason = device.name + ": the kernel does not say how many bytes its events count";
                return false;
            }
            if (const int error = boxes_.add(device, events); error != 0) {
                reason = why_no_event(device.name, error);
                return false;
            }
        }
        return true;
    }

    BoxEvents boxes_;
};

}  // namespace

std::unique_ptr<Source> open_arm_memory(const Request&, std::string& reason) {
    auto source = std::make_unique<ArmMemory>();
    return source->open(reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
