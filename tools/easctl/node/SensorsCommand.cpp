// easctl node sensors: the energy meter and the processors' temperature.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/UniqueFd.h"
#include "common/node/CpuTopology.h"
#include "common/node/EnergySensors.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/cli/Signals.h"
#include "tools/easctl/node/NodeCommands.h"
#include "tools/easctl/node/NodeLinks.h"
#include "tools/easctl/node/NodeMeter.h"

namespace easctl {
namespace {

struct Reading {
    std::string name;
    LinkStatus status = LinkStatus::ok;
    double value = 0;  // meaningless unless ok
    std::string unit;
    std::string why;  // there is none; with a value: what it covers
};

struct Unit {
    const char* part;  // of the sensor's name
    double divisor;    // from what the driver writes
    const char* name;
};
// The first that fits.
constexpr std::array<Unit, 4> units = {{
    {"interval", 1, "ms"},
    {"energy", 1e6, "J"},
    {"power", 1e6, "W"},
    {"temp", 1e3, "degrees C"},
}};

/// Why a sensor's file cannot be read.
void explain(Reading& reading) {
    int error = ENOENT;
    for (const char* device : {"qpx.1", "qpx.0"}) {
        const std::string path =
            std::string("/sys/devices/platform/") + device + '/' + reading.name;
        const eas::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.is_open() && errno != ENOENT)
            error = errno;
        else if (file.is_open())
            error = EIO;
    }
    reading.status = status_of(error);
    reading.why = error == ENOENT ? "the energy meter has no such sensor" : std::strerror(error);
}

Reading read_sensor(const char* name) {
    Reading reading;
    reading.name = name;
    for (const Unit& unit : units) {
        if (reading.name.find(unit.part) == std::string::npos)
            continue;
        reading.unit = unit.name;
        std::array<char, 255> text{};
        if (sysfs_read_file(name, text.data(), text.size()) == 0) {
            explain(reading);
            return reading;
        }
        char* end = text.data();
        errno = 0;
        const unsigned long value = std::strtoul(text.data(), &end, 0);
        if (end == text.data() || errno != 0) {
            reading.status = LinkStatus::missing;
            reading.why = "what the driver writes is no number";
        }
        // A temperature below 0 comes as a negative number, which wraps.
        reading.value = static_cast<double>(static_cast<long>(value)) / unit.divisor;
        return reading;
    }
    return reading;
}

/// Reads registers only: counters that another process has programmed are not disturbed.
Reading read_margin() {
    Reading reading{"margin", LinkStatus::ok, 0, "degrees C", {}};
    const eas::TopologyReading node = read_processors();
    const Link registers = examine_node(LinkId::registers);
    if (node.result != 0 || is_broken(registers)) {
        reading.status = node.result == 0 ? registers.status : LinkStatus::missing;
        reading.why = node.result == 0 ? registers.name + ": " + registers.found
                                       : "the registers of this processor are not known";
        return reading;
    }
    const std::uint64_t margin = eas::mean_margin(node.processors);
    // Above the limit the margin is negative.
    reading.value = static_cast<double>(static_cast<std::int64_t>(margin));
    if (margin == no_temperature) {
        reading.status = LinkStatus::missing;
        reading.why = "a processor has no valid reading, or its model has none";
    }
    return reading;
}

/// The node's power over a second, by the source of energy that serves.
Reading read_power(const MeterOptions& options) {
    MeterOptions energy_only = options;
    energy_only.core = energy_only.memory = "none";
    NodeMeter meter(energy_only);
    const HeldSignals signals;
    const easnode_reading first = meter.read();
    for (int i = 0; i < 4; ++i) {
        signals.sleep_or_throw(0.25);
        meter.keep_up();
    }
    const easnode_reading last = meter.read();
    Reading reading{"power", LinkStatus::ok, 0, "W", text_of(last.energy)};
    const auto before = value_of(first.energy), now = value_of(last.energy);
    if (before && now) {
        const double seconds = static_cast<double>(last.time_ns - first.time_ns) / 1e9;
        reading.value = std::round((*now - *before) / seconds * 10) / 10;
    } else {
        reading.status = LinkStatus::missing;
        reading.why = last.energy.reason;
    }
    return reading;
}

/// Of the energy meter whose sensors daemons read by getenrusage.
bool has_platform_meter() {
    return ::access("/sys/devices/platform/qpx.1", F_OK) == 0 ||
           ::access("/sys/devices/platform/qpx.0", F_OK) == 0;
}

Json json_of(const Reading& reading) {
    const bool good = reading.status == LinkStatus::ok;
    Json json{{"name", reading.name},
              {"status", name_of(reading.status)},
              {"value", good ? Json(reading.value) : Json(nullptr)},
              {"unit", reading.unit}};
    if (!reading.why.empty())
        json[good ? "covers" : "why"] = reading.why;
    return json;
}

void run_sensors(const MeterOptions& options, Globals& globals) {
    std::vector<Reading> readings{read_power(options)};
    if (has_platform_meter()) {
        for (const char* name : value_files)
            readings.push_back(read_sensor(name));
    }
    readings.push_back(read_margin());
    Table table({{"sensor"}, {"value", Align::right}, {"unit"}, {""}});
    Json json = Json::array();
    globals.outcome = ExitCode::node;
    for (const Reading& reading : readings) {
        json.push_back(json_of(reading));
        if (reading.status == LinkStatus::ok) {
            globals.outcome = ExitCode::ok;
            table.add({reading.name, exact(reading.value), reading.unit, reading.why});
        } else {
            table.add({reading.name, {name_of(reading.status), Style::bad}, "", reading.why});
        }
    }
    if (globals.json)
        print_json({{"sensors", std::move(json)}});
    else
        print(table.text(globals.colored()) +
              "margin: of the processors' temperature, below the highest that they allow\n");
    if (globals.outcome != ExitCode::ok)
        remark(globals, "no sensor can be read; \"easctl node info\" says what is missing");
}

}  // namespace

void add_sensors_command(CLI::App& node, Globals& globals) {
    CLI::App& command =
        add_command(node, "sensors",
                    "the node's power over a second, its energy meter and the processors' "
                    "temperature",
                    "easctl node sensors\neasctl node sensors --json");
    const auto options = std::make_shared<MeterOptions>();
    options->add_to(command);
    set_action(command, [options, &globals] { run_sensors(*options, globals); });
}

}  // namespace easctl
