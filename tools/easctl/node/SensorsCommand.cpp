// easctl node sensors: the energy meter and the processors' temperature.
#include <fcntl.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/UniqueFd.h"
#include "common/node/CpuTopology.h"
#include "common/node/EnergySensors.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Link.h"
#include "tools/easctl/node/NodeCommands.h"
#include "tools/easctl/node/NodeLinks.h"

namespace easctl {
namespace {

struct Reading {
    std::string name;
    LinkStatus status = LinkStatus::ok;
    double value = 0;  // meaningless unless ok
    std::string unit;
    std::string why;  // there is none
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
    for (const Link& link : examine_node(std::array{LinkId::processor, LinkId::registers})) {
        if (!is_broken(link))
            continue;
        reading.status = link.status == LinkStatus::denied ? link.status : LinkStatus::missing;
        reading.why = link.name + ": " + link.found;
        return reading;
    }
    const std::uint64_t margin = eas::mean_margin(read_processors().processors);
    // Above the limit the margin is negative.
    reading.value = static_cast<double>(static_cast<std::int64_t>(margin));
    if (margin == NO_TEMPERATURE) {
        reading.status = LinkStatus::missing;
        reading.why = "a processor has no valid reading, or its model has none";
    }
    return reading;
}

Json json_of(const Reading& reading) {
    const bool good = reading.status == LinkStatus::ok;
    Json json{{"name", reading.name},
              {"status", name_of(reading.status)},
              {"value", good ? Json(reading.value) : Json(nullptr)},
              {"unit", reading.unit}};
    if (!good)
        json["why"] = reading.why;
    return json;
}

void run_sensors(Globals& globals) {
    std::vector<Reading> readings;
    for (const char* name : value_files)
        readings.push_back(read_sensor(name));
    readings.push_back(read_margin());
    Table table({{"sensor"}, {"value", Align::right}, {"unit"}, {""}});
    Json json = Json::array();
    globals.outcome = ExitCode::node;
    for (const Reading& reading : readings) {
        json.push_back(json_of(reading));
        if (reading.status == LinkStatus::ok) {
            globals.outcome = ExitCode::ok;
            table.add({reading.name, exact(reading.value), reading.unit});
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
    set_action(
        add_command(node, "sensors", "the energy meter and the processors' temperature, once",
                    "easctl node sensors\neasctl node sensors --json"),
        [&globals] { run_sensors(globals); });
}

}  // namespace easctl
