// Energy by a power meter of the hwmon class: the node's own (ACPI), or those of its processor
// modules. Sensors of power supplies, accelerators, disks and networks are none: a chassis may
// share them, or they see a part of the node.
#include "node/meter/PowerMeter.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "node/files/KeptFile.h"
#include "node/files/PseudoFile.h"
#include "node/meter/Integrator.h"

namespace eas::node {
namespace {

const char* const hwmon_class = "/sys/class/hwmon/";
constexpr int first_average = 50;  // ms
constexpr Nanoseconds usual_interval = 1'000'000'000;

/// What meters of processor modules say of themselves, the widest level first.
struct LevelRow {
    std::string_view info;
    easnode_extent extent;
    const char* words;
};
constexpr LevelRow level_rows[] = {
    {"Module Power Socket", EASNODE_MODULES, "module power, not the whole node"},
    {"Grace Power Socket", EASNODE_PACKAGES_AND_MEMORY, "CPU and memory power, not the whole node"},
    {"CPU Power Socket", EASNODE_PACKAGES, "CPU-socket power, not the whole node"},
};

/// Meters of parts that a level above contains.
bool is_level(const std::string& info) {
    return info.find("Power Socket") != std::string::npos;
}

/// A file of a chip: in its folder, on older kernels in that of its device. Names and values may
/// lie in different ones.
std::string file_of(const std::string& chip, const char* name) {
    const std::string here = chip + "/" + name;
    return read_text(here).error == ENOENT ? chip + "/device/" + name : here;
}

std::vector<MeterInfo> find_meters() {
    std::vector<MeterInfo> meters;
    for (const std::string& name : names_in(hwmon_class)) {
        const std::string chip = hwmon_class + name;
        if (read_text(file_of(chip, "name")).text == "power_meter")
            meters.push_back({chip, read_text(file_of(chip, "power1_oem_info")).text});
    }
    return meters;
}

class PowerMeter : public Source {
  public:
    bool open(const Request& request, std::string& reason) {
        const auto meters = find_meters();
        const ChosenMeters chosen = choose_meters(meters);
        what_ = chosen.words;
        if (chosen.folders.empty()) {
            reason = chosen.words;
            return false;
        }
        for (const std::string& folder : chosen.folders) {
            files_.emplace_back(file_of(folder, "power1_average"));
            const auto interval = read_number(file_of(folder, "power1_average_interval"));
            if (interval && *interval > 0 && *interval < 60'000)
                interval_ = std::max(interval_, static_cast<Nanoseconds>(*interval) * millisecond);
        }
        coverage_ = {chosen.extent, what_, interval_};
        auto watts = power(reason);
        if (!watts) {  // one that has just been started has no average yet
            ::poll(nullptr, 0, first_average);
            watts = power(reason);
        }
        if (watts)
            integral_.start(request.now, *watts);
        return watts.has_value();
    }

    void read(Nanoseconds now, Result& result) override {
        std::string reason;
        const auto watts = power(reason);
        if (!watts) {
            result.end(reason);
        } else if (!integral_.add(now, *watts)) {
            result.end("not read for more than a minute: nobody knows the power meanwhile");
        } else {
            result.quality = EASNODE_INTEGRATED;
            result.values[0] = integral_.joules();
            coverage_.words = integral_.words(what_);
        }
    }

  private:
    std::optional<double> power(std::string& reason) {
        double watts = 0;
        for (KeptFile& file : files_) {
            const auto microwatts = file.number();
            if (!microwatts || *microwatts == 0) {
                reason = microwatts ? file.path() + " says 0 W" : file.reason();
                return std::nullopt;
            }
            watts += static_cast<double>(*microwatts) * micro;
        }
        return watts;
    }

    const char* what_ = "";
    std::vector<KeptFile> files_;
    Nanoseconds interval_ = usual_interval;
    Integrator integral_;
};

}  // namespace

ChosenMeters choose_meters(const std::vector<MeterInfo>& meters) {
    for (const LevelRow& level : level_rows) {
        ChosenMeters chosen{{}, level.extent, level.words};
        for (const MeterInfo& meter : meters)
            if (meter.info.find(level.info) != std::string::npos)
                chosen.folders.push_back(meter.folder);
        if (!chosen.folders.empty())
            return chosen;
    }
    ChosenMeters chosen{{}, EASNODE_NODE, "node power meter"};
    for (const MeterInfo& meter : meters)
        if (!is_level(meter.info))
            chosen.folders.push_back(meter.folder);
    if (chosen.folders.size() != 1) {
        chosen.words = chosen.folders.empty()
                           ? "no hwmon device power_meter"
                           : "several power meters, and no word what each measures";
        chosen.folders.clear();
    }
    return chosen;
}

std::unique_ptr<Source> open_power_meter(const Request& request, std::string& reason) {
    auto source = std::make_unique<PowerMeter>();
    return source->open(request, reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
