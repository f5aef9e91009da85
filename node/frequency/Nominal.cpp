#include "node/frequency/Nominal.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "base/Numbers.h"
#include "node/files/PseudoFile.h"
#include "node/topology/Processor.h"

namespace eas::node {
namespace {

constexpr long long turbo_bin = 100000;
constexpr int turbo_mark = 1000;

int as_khz(std::optional<long long> number, long long factor = 1) {
    return number && *number > 0 && *number <= INT_MAX / factor ? static_cast<int>(*number * factor)
                                                                : 0;
}

int from_base(const Policy& policy) {
    return as_khz(read_number(policy.file("base_frequency")));
}

/// intel_pstate tells how much of its range of P-states is turbo.
int from_turbo_range(const Policy& policy) {
    const auto percent = read_number("/sys/devices/system/cpu/intel_pstate/turbo_pct");
    const auto states = read_number("/sys/devices/system/cpu/intel_pstate/num_pstates");
    if (!percent || !states || *percent < 0 || *percent > 100 || *states < 1 || *states > 1000)
        return 0;
    long long highest = policy.highest();
    // While turbo is off, newer kernels show the nominal one there.
    if (read_number("/sys/devices/system/cpu/intel_pstate/no_turbo") == 1)
        highest = std::max(highest, policy.lowest + turbo_bin * (*states - 1));
    return as_khz(highest - turbo_bin * (*percent * *states / 100));
}

int from_firmware(int cpu) {
    const std::string path =
        "/sys/devices/system/cpu/cpu" + decimal(cpu) + "/acpi_cppc/nominal_freq";
    return as_khz(read_number(path), 1000);
}

int from_table(const Policy& policy) {
    for (const int khz : policy.table)
        if (!is_turbo_entry(policy.table, khz))
            return khz;
    return 0;
}

int from_processor() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(0x16, &a, &b, &c, &d) == 1)
        return as_khz(a & 0xffff, 1000);
#endif
    return 0;
}

/// Firmware says 3251 MHz where the driver offers 3250000 kHz: the entry is meant.
int nearest_entry(const Policy& policy, int khz) {
    constexpr double near = 0.005;
    for (const int entry : policy.table)
        if (!is_turbo_entry(policy.table, entry) && std::abs(entry - khz) < near * khz)
            return entry;
    return khz;
}

}  // namespace

bool is_turbo_entry(const std::vector<int>& table, int khz) {
    return table.size() > 1 && khz == table[0] && table[0] - table[1] == turbo_mark;
}

int nominal_in_name(std::string_view name) {
    const std::size_t at = name.rfind('@');
    if (at == std::string_view::npos)
        return 0;
    const std::string_view text = trimmed(name.substr(at + 1));
    const std::size_t unit = text.find("GHz");
    if (unit == std::string_view::npos || unit == 0 || unit > 6)
        return 0;
    const double ghz = to_double(std::string(text.substr(0, unit)).c_str());
    return ghz > 0 && ghz < 100 ? static_cast<int>(std::lround(ghz * 1e6)) : 0;
}

int nominal_without_policy(int cpu, int& source) {
    source = EASNODE_NOMINAL_CPPC;
    int khz = from_firmware(cpu);
    if (khz == 0) {
        source = EASNODE_NOMINAL_NAME;
        khz = nominal_in_name(read_processor().name);
    }
    if (khz == 0) {
        source = EASNODE_NOMINAL_CPUID;
        khz = from_processor();
    }
    if (khz == 0)
        source = EASNODE_NOMINAL_UNKNOWN;
    return khz;
}

void find_nominal(Policy& policy) {
    const auto found = [&policy](int khz, int source) {
        policy.nominal = nearest_entry(policy, khz);
        policy.nominal_source = source;
        return khz > 0;
    };
    if (found(from_base(policy), EASNODE_NOMINAL_BASE) ||
        found(from_turbo_range(policy), EASNODE_NOMINAL_TURBO) ||
        found(from_firmware(policy.cpu()), EASNODE_NOMINAL_CPPC) ||
        found(from_table(policy), EASNODE_NOMINAL_TABLE))
        return;
    int source = EASNODE_NOMINAL_UNKNOWN;
    const int khz = nominal_without_policy(policy.cpu(), source);
    found(khz, source);
}

}  // namespace eas::node
