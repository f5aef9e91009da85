#include "common/node/EnergySensors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/CancelState.h"
#include "base/UniqueFd.h"
#include "common/node/CpuTopology.h"
#include "common/node/Msr.h"
#include "common/node/ProcessorModel.h"

const std::array<const char*, 14> value_files = {{
    "energy1_input",
    "energy2_input",
    "power1_average",
    "power1_average_interval",
    "power2_average",
    "power2_average_interval",
    "power3_average",
    "power4_average",
    "power5_average",
    "power6_average",
    "power7_average",
    "power_cap",
    "temp1_input",
    "temp2_input",
}};

namespace {

constexpr std::size_t path_size = 255;
constexpr std::size_t value_size = 255;

// The device with the sensors of the whole node, then its fall-back.
constexpr const char* preferred_device = "/sys/devices/platform/qpx.1";
constexpr const char* other_device = "/sys/devices/platform/qpx.0";

// Members of enrusage in the order of value_files.
constexpr std::array<unsigned long enrusage::*, 14> sensor_fields = {{
    &enrusage::energy1_input,
    &enrusage::energy2_input,
    &enrusage::power1_average,
    &enrusage::power1_average_interval,
    &enrusage::power2_average,
    &enrusage::power2_average_interval,
    &enrusage::power3_average,
    &enrusage::power4_average,
    &enrusage::power5_average,
    &enrusage::power6_average,
    &enrusage::power7_average,
    &enrusage::power_cap,
    &enrusage::temp1_input,
    &enrusage::temp2_input,
}};

// Thermal registers as in the processor vendor's software developer manual. The readout is bits
// 22:16 there; bit 23 is reserved, reads as 0, and is taken along.
constexpr std::uint32_t msr_therm_status = 0x19C;        // bit 31: the readout is valid
constexpr std::uint32_t msr_temperature_target = 0x1A2;  // bits 23:16 junction maximum

eas::UniqueFd open_sensor(const char* device, const char* fname) {
    std::array<char, path_size> path{};
    std::snprintf(path.data(), path.size(), "%s/%s", device, fname);
    return eas::UniqueFd(::open(path.data(), O_RDONLY | O_CLOEXEC));
}

// Degrees below the junction maximum that a socket's CPU reports. False: not valid now.
bool read_margin(int cpu, int& margin) {
    const std::uint64_t status = eas::register_or_zero(cpu, msr_therm_status);
    const int reading = extract_bits(status, 23, 16);
    const std::uint64_t target = eas::register_or_zero(cpu, msr_temperature_target);
    const int tjmax = extract_bits(target, 23, 16);
    margin = tjmax - reading;
    return extract_bits(status, 32, 31) != 0;  // bit 32 is reserved and counts as valid, too
}

}  // namespace

unsigned int sysfs_read_file(const char* fname, char* buf, size_t buflen) {
    if (fname == nullptr || buf == nullptr || buflen == 0)
        return 0;
    const eas::DeferCancellation deferred;
    eas::UniqueFd fd = open_sensor(preferred_device, fname);
    if (!fd.is_open())
        fd = open_sensor(other_device, fname);
    if (!fd.is_open())
        return 0;
    const ssize_t count = ::read(fd.get(), buf, buflen - 1);
    if (count <= 0)
        return 0;
    buf[count] = '\0';
    return static_cast<unsigned int>(count);
}

unsigned long eas::parse_sensor_value(const char* text) noexcept {
    char* end = nullptr;
    errno = 0;  // an earlier overflow is not this sensor's
    const unsigned long value = std::strtoul(text, &end, 0);
    return end == text || errno == ERANGE ? 0 : value;
}

unsigned long sysfs_get_one_value(unsigned int which) {
    if (which >= value_files.size())
        return 0;
    std::array<char, value_size> text{};
    if (sysfs_read_file(value_files[which], text.data(), text.size()) == 0)
        return 0;
    return eas::parse_sensor_value(text.data());
}

int getenrusage(__rusage_who_t, enrusage* usage) {
    if (usage == nullptr)
        return -1;
    for (unsigned int which = 0; which < sensor_fields.size(); ++which) {
        usage->*sensor_fields[which] = sysfs_get_one_value(which);
    }
    return 0;
}

int getearusage(__rusage_who_t, enrusage* usage) {
    if (usage == nullptr)
        return -1;
    usage->energy1_input = sysfs_get_one_value(0);
    return 0;
}

int verify_qpx() {
    return static_cast<int>(sysfs_get_one_value(0));
}

std::uint64_t eas::mean_margin(const cpuinfo_t& processors) {
    const ProcessorModel* model = find_model(processors.model);
    if (model == nullptr || !model->thermal_sensor || processors.numSockets < 1)
        return no_temperature;
    int sum = 0;
    bool all_valid = true;
    for (int s = 0; s < processors.numSockets; ++s) {
        const int cpu = processors.cpuId[s];
        int margin = 0;
        if (cpu >= 0 && read_margin(cpu, margin)) {
            sum += margin;
        } else {
            all_valid = false;
        }
    }
    return all_valid ? static_cast<std::uint64_t>(sum / processors.numSockets) : no_temperature;
}

int read_inlet_temperature(hwrusage* usage) {
    usage->inlet_temperature = eas::mean_margin(cinfo);
    return 0;
}
