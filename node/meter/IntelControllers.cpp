// Memory traffic by the memory controllers' PMUs of Intel processors.
//
// Of servers the codes are known by model: the names in /sys were wrong, missing or incomplete on
// some kernels. Of all others the names in /sys tell code, scale and unit.
#include <algorithm>
#include <array>
#include <optional>

#include "node/meter/BoxEvents.h"
#include "node/topology/Processor.h"

namespace eas::node {
namespace {

constexpr int intel_family = 6;
constexpr double line_size = 64;  // bytes of a column access

/// Column accesses of one generation of controllers; 0 for none.
struct Codes {
    std::array<std::uint64_t, 2> read;
    std::array<std::uint64_t, 2> write;
};
constexpr Codes up_to_cascade_lake = {{0x0304, 0}, {0x0c04, 0}};
// Kernels before 5.17 list the codes of the generation before for it.
constexpr Codes ice_lake = {{0x0f04, 0}, {0x3004, 0}};
constexpr Codes sapphire_rapids = {{0xcf05, 0}, {0xf005, 0}};
// Each of two schedulers has half of the accesses.
constexpr Codes granite_rapids = {{0xcf05, 0xcf06}, {0xf005, 0xf006}};

struct ModelRow {
    int model;
    const Codes* codes;
};
constexpr ModelRow model_rows[] = {
    {45, &up_to_cascade_lake},  // Sandy Bridge-EP
    {62, &up_to_cascade_lake},  // Ivy Bridge-EP
    {63, &up_to_cascade_lake},  // Haswell-EP
    {79, &up_to_cascade_lake},  // Broadwell-EP
    {86, &up_to_cascade_lake},  // Broadwell-DE
    {85, &up_to_cascade_lake},  // Skylake-SP, Cascade Lake, Cooper Lake
    {106, &ice_lake},           // Ice Lake-SP
    {108, &ice_lake},           // Ice Lake-D
    {134, &ice_lake},           // Snow Ridge
    {143, &sapphire_rapids},    // Sapphire Rapids
    {207, &sapphire_rapids},    // Emerald Rapids
    {173, &granite_rapids},     // Granite Rapids
    {174, &granite_rapids},     // Granite Rapids-D
    {175, &granite_rapids},     // Sierra Forest
};

/// What the kernel calls reads and writes, by family of PMUs. The first row that is complete is
/// taken and no other: the free-running counters see the same traffic as those beside them.
struct NamesRow {
    const char* family;
    std::array<const char*, 4> names;
};
constexpr NamesRow name_rows[] = {
    {"uncore_imc",
     {"cas_count_read_sch0", "cas_count_read_sch1", "cas_count_write_sch0",
      "cas_count_write_sch1"}},                                // two schedulers
    {"uncore_imc", {"cas_count_read", "cas_count_write"}},     // servers
    {"uncore_imc", {"data_reads", "data_writes"}},             // clients to Rocket Lake
    {"uncore_imc_free_running", {"data_read", "data_write"}},  // clients from Tiger Lake
};

const Codes* codes_of_model(const Processor& processor) {
    if (processor.vendor != Vendor::intel || processor.family != intel_family)
        return nullptr;
    for (const ModelRow& row : model_rows)
        if (row.model == processor.model)
            return row.codes;
    return nullptr;
}

std::vector<BoxEvent> events_by_codes(const Codes& codes) {
    std::vector<BoxEvent> events;
    for (const auto& direction : {codes.read, codes.write})
        for (const std::uint64_t code : direction)
            if (code != 0)
                events.push_back({code, line_size});
    return events;
}

/// The events of a row; empty where the device lacks one, or says no unit.
std::vector<BoxEvent> events_by_names(const PmuDevice& device, const NamesRow& row) {
    std::vector<BoxEvent> events;
    for (const char* name : row.names) {
        if (name == nullptr)
            break;
        const auto event = device.event(name);
        if (!event || event->unit != "MiB")
            return {};
        events.push_back({event->config, event->scale * mebibyte});
    }
    return events;
}

class IntelControllers : public Source {
  public:
    bool open(std::string& reason) {
        const Codes* const codes = codes_of_model(read_processor());
        const bool good = codes != nullptr ? open_by_codes(*codes, reason) : open_by_names(reason);
        coverage_ = {EASNODE_NODE, "memory controllers, all sockets, read+write", 0};
        return good;
    }

    void read(Nanoseconds, Result& result) override {
        boxes_.read(result);
        if (result.reason.empty() && result.values[0] == 0)
            result.wait_for("the controllers have not counted any traffic since the opening");
    }

  private:
    bool add(const PmuDevice& device, const std::vector<BoxEvent>& events, std::string& reason) {
        const int error = boxes_.add(device, events);
        if (error != 0)
            reason = why_no_event(device.name, error);
        return error == 0;
    }

    bool open_by_codes(const Codes& codes, std::string& reason) {
        const auto events = events_by_codes(codes);
        const auto devices = find_pmus("uncore_imc");
        if (devices.empty())
            reason = has_pmu_like("uncore_type_")
                         ? "the kernel is too old for this processor: its PMUs have numbers only"
                         : "no PMU uncore_imc";
        return !devices.empty() &&
               std::all_of(devices.begin(), devices.end(),
                           [&](const PmuDevice& device) { return add(device, events, reason); });
    }

    bool open_by_names(std::string& reason) {
        reason = "no PMU uncore_imc with events that are known";
        for (const NamesRow& row : name_rows) {
            const auto devices = find_pmus(row.family);
            if (devices.empty() || events_by_names(devices.front(), row).empty())
                continue;
            return std::all_of(devices.begin(), devices.end(), [&](const PmuDevice& device) {
                const auto events = events_by_names(device, row);
                if (events.empty())
                    reason = device.name + ": lacks events that its siblings have";
                return !events.empty() && add(device, events, reason);
            });
        }
        return false;
    }

    BoxEvents boxes_;
};

}  // namespace

std::unique_ptr<Source> open_intel_controllers(const Request&, std::string& reason) {
    auto source = std::make_unique<IntelControllers>();
    return source->open(reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
