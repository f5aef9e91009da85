// Memory traffic of AMD processors: by the memory controllers' PMUs (Zen 4 and later, with a kernel
// that has them), or by a sample of the data fabric.
#include <algorithm>
#include <array>

#include "node/meter/BoxEvents.h"
#include "node/topology/Processor.h"

namespace eas::node {
namespace {

constexpr double line_size = 64;

// Column accesses of a controller; rdwrmask 1: reads, 2: writes.
constexpr std::uint64_t column_access = 0x0a;
constexpr std::uint64_t rdwrmask_reads = 1;
constexpr std::uint64_t rdwrmask_writes = 2;

/// Requests with data at the memory channels of the fabric, by what the event field looks like.
struct FabricRow {
    const char* event_format;
    std::uint64_t first_event;  ///< channel n: + 0x40 x n
    unsigned channels;
    std::array<std::uint64_t, 2> umasks;  ///< 0: none
    const char* words;
};
constexpr FabricRow fabric_rows[] = {
    // Zen 1 to 3; one mask takes reads and writes.
    {"config:0-7,32-35,59-60",
     0x07,
     8,
     {0x38, 0},
     "data fabric, sampled (4 counters for 8 channels)"},
    // Zen 4 and 5; reads, writes.
    {"config:0-7,32-37",
     0x1f,
     12,
     {0xffe, 0xfff},
     "data fabric, sampled (4 counters for 24 events)"},
};
constexpr std::uint64_t next_channel = 0x40;

void check_for_traffic(Result& result) {
    if (result.reason.empty() && result.values[0] == 0)
        result.wait_for("no traffic has been counted since the meter was opened");
}

class AmdControllers : public Source {
  public:
    bool open(std::string& reason) {
        coverage_ = {EASNODE_NODE, "memory controllers, all sockets, read+write", 0};
        const auto devices = find_pmus("amd_umc");
        if (devices.empty())
            reason = "no PMU amd_umc (Zen 4 and later; kernel 6.8; module amd_uncore)";
        return !devices.empty() &&
               std::all_of(devices.begin(), devices.end(),
                           [&](const PmuDevice& device) { return add(device, reason); });
    }

    void read(Nanoseconds, Result& result) override {
        boxes_.read(result);
        check_for_traffic(result);
    }

  private:
    bool add(const PmuDevice& device, std::string& reason) {
        const auto reads =
            device.config_of({{"event", column_access}, {"rdwrmask", rdwrmask_reads}});
        const auto writes =
            device.config_of({{"event", column_access}, {"rdwrmask", rdwrmask_writes}});
        if (!reads || !writes) {
            reason = device.name + ": its formats are not known";
            return false;
        }
        const int error = boxes_.add(device, {{*reads, line_size}, {*writes, line_size}});
        if (error != 0)
            reason = why_no_event(device.name, error);
        return error == 0;
    }

    BoxEvents boxes_;
};

class DataFabric : public Source {
  public:
    bool open(std::string& reason) {
        const auto devices = find_pmus("amd_df");
        if (devices.empty() || read_processor().vendor != Vendor::amd) {
            reason = devices.empty() ? "no PMU amd_df (module amd_uncore)"
                                     : "amd_df: not known of other vendors";
            return false;
        }
        const std::string format = devices.front().text("format/event");
        for (const FabricRow& row : fabric_rows)
            if (format == row.event_format)
                return add_channels(devices.front(), row, reason);
        reason = "amd_df: its formats are not known";
        return false;
    }

    void read(Nanoseconds, Result& result) override {
        boxes_.read(result);
        result.quality = EASNODE_SCALED;  // at no time do all channels count
        check_for_traffic(result);
    }

  private:
    // Each event by itself: a group of more than the fabric's counters would never count.
    bool add_channels(const PmuDevice& device, const FabricRow& row, std::string& reason) {
        coverage_ = {EASNODE_NODE, row.words, 0};
        for (unsigned channel = 0; channel < row.channels; ++channel) {
            for (const std::uint64_t umask : row.umasks) {
                if (umask == 0)
                    continue;
                const auto config = device.config_of(
                    {{"event", row.first_event + next_channel * channel}, {"umask", umask}});
                const int error = config ? boxes_.add(device, {{*config, line_size}}) : -1;
                if (error != 0) {
                    reason = config ? why_no_event(device.name, error)
                                    : device.name + ": its formats are not known";
                    return false;
                }
            }
        }
        return true;
    }

    BoxEvents boxes_;
};

}  // namespace

std::unique_ptr<Source> open_amd_controllers(const Request&, std::string& reason) {
    auto source = std::make_unique<AmdControllers>();
    return source->open(reason) ? std::move(source) : nullptr;
}

std::unique_ptr<Source> open_data_fabric(const Request&, std::string& reason) {
    auto source = std::make_unique<DataFabric>();
    return source->open(reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
