// Frequencies and governors of single CPUs and of all, through the kernel's cpufreq files.
#include "common/node/EnergyUtil.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "base/CancelState.h"
#include "base/Numbers.h"
#include "base/UniqueFd.h"
#include "common/node/BinFile.h"

int EnergyUtil::nominal_frequency = 0;

namespace {

constexpr int failed = -1;
constexpr int succeeded = 1;

// Names below a CPU's cpufreq directory.
constexpr const char* current_file = "scaling_cur_freq";
constexpr const char* governor_file = "scaling_governor";
constexpr const char* set_speed_file = "scaling_setspeed";
constexpr const char* lowest_file = "scaling_min_freq";
constexpr const char* highest_file = "scaling_max_freq";
constexpr const char* list_file = "scaling_available_frequencies";

constexpr std::string_view userspace = "userspace";
constexpr std::size_t governor_size = 32;
constexpr std::size_t frequency_list_size = 1024;

constexpr off_t msr_platform_info = 0xCE;  // bits 15:8: maximum non-turbo ratio
constexpr int khz_per_ratio = 133330;      // on every model, also those with a 100 MHz bus

using Path = std::array<char, MAX_PATH_LENGTH>;

Path cpufreq_path(int cpuid, const char* name) {
    Path path{};
    std::snprintf(path.data(), path.size(), "%s/cpu%d/cpufreq/%s", CPU_FREQENCY_PATH, cpuid, name);
    return path;
}

template <std::size_t Size>
int read_cpufreq(int cpuid, const char* name, std::array<char, Size>& text) {
    return bin_read_file(cpufreq_path(cpuid, name).data(), text.data(), static_cast<int>(Size));
}

bool write_cpufreq(int cpuid, const char* name, const char* text, std::size_t length) {
    if (length > INT_MAX)
        return false;
    const int size = static_cast<int>(length);
    return bin_write_file(cpufreq_path(cpuid, name).data(), text, size) == size;
}

// A number that no int holds is 0, so no frequency.
int to_khz(const char* text) {
    return std::max(eas::to_int(text), 0);
}

bool starts_with(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

// False for what is no frequency, or does not fit its text buffer: a cut number is another one.
bool format_khz(int freqval, std::array<char, MAX_FREQENCY_LENGTH>& text) {
    if (freqval <= 0)
        return false;
    return std::snprintf(text.data(), text.size(), "%d", freqval) < MAX_FREQENCY_LENGTH;
}

// Appends the driver's steps; false where it has no list of them. Throws std::bad_alloc.
bool append_available(std::vector<int>& freqs, int cpuid) {
    std::array<char, frequency_list_size> text{};
    if (read_cpufreq(cpuid, list_file, text) <= 0)
        return false;
    const char* next = text.data();
    while (*(next += std::strcspn(next, "0123456789")) != '\0') {
        freqs.push_back(to_khz(next));
        while (eas::is_digit(*next))
            ++next;
    }
    return !freqs.empty();
}

// The first of the nearest ones; 0 when every one is `frequency` away or more.
int nearest(const std::vector<int>& freqs, int frequency) {
    std::size_t best = 0;
    int distance = frequency;
    for (std::size_t i = 0; i < freqs.size(); ++i) {
        const int candidate = std::abs(frequency - freqs[i]);
        if (candidate < distance) {
            distance = candidate;
            best = i;
        }
    }
    return freqs[best];
}

template <typename Operation>
int on_every_cpu(Operation operation) {
    std::vector<int> cpuids;
    if (EnergyUtil::get_all_cpu_ids(cpuids) <= 0)
        return failed;
    std::size_t done = 0;
    for (const int cpuid : cpuids) {
        if (operation(cpuid) > 0)
            ++done;
    }
    return done == cpuids.size() ? succeeded : failed;
}

}  // namespace

int EnergyUtil::get_current_frequency(int cpuid) {
    const eas::DeferCancellation deferred;
    std::array<char, MAX_FREQENCY_LENGTH + 1> text{};
    if (read_cpufreq(cpuid, current_file, text) <= 0)
        return failed;
    const int frequency = to_khz(text.data());
    return frequency >= 1 ? frequency : failed;
}

int EnergyUtil::set_cpu_frequency(int freqval, int cpuid) {
    const eas::DeferCancellation deferred;
    std::array<char, MAX_FREQENCY_LENGTH> frequency{};
    if (!format_khz(freqval, frequency))
        return failed;
    std::array<char, governor_size> present{};
    if (read_cpufreq(cpuid, governor_file, present) <= 0)
        return failed;
    if (!starts_with(present.data(), userspace) &&
        !write_cpufreq(cpuid, governor_file, userspace.data(), userspace.size())) {
        return failed;
    }
    const bool set =
        write_cpufreq(cpuid, set_speed_file, frequency.data(), std::strlen(frequency.data()));
    return set ? succeeded : failed;
}

int EnergyUtil::set_cpu_governor(char* governor, int cpuid) {
    if (governor == nullptr)
        return failed;
    const eas::DeferCancellation deferred;
    const std::string_view wanted = governor;
    std::array<char, governor_size> present{};
    if (read_cpufreq(cpuid, governor_file, present) <= 0)
        return failed;
    // The kernel ends the present name with a newline: only the given name's length counts.
    if (starts_with(present.data(), wanted))
        return succeeded;
    return write_cpufreq(cpuid, governor_file, governor, wanted.size()) ? succeeded : failed;
}

int EnergyUtil::set_cpu_frequency_cap(int freqval, int cpuid, CPUFreqCapType type) {
    const eas::DeferCancellation deferred;
    std::array<char, MAX_FREQENCY_LENGTH> text{};
    if (!format_khz(freqval, text))
        return failed;
    if (type != CPU_FREQ_MIN && type != CPU_FREQ_MAX)
        return failed;
    const char* name = type == CPU_FREQ_MAX ? highest_file : lowest_file;
    return write_cpufreq(cpuid, name, text.data(), std::strlen(text.data())) ? succeeded : failed;
}

int EnergyUtil::set_all_cpu_freqs(int freqval) {
    return on_every_cpu([freqval](int cpuid) { return set_cpu_frequency(freqval, cpuid); });
}

int EnergyUtil::set_all_cpu_governors(char* governor) {
    if (governor == nullptr)
        return failed;
    return on_every_cpu([governor](int cpuid) { return set_cpu_governor(governor, cpuid); });
}

int EnergyUtil::set_all_cpu_freqs_cap(int freqval, CPUFreqCapType type) {
    return on_every_cpu(
        [freqval, type](int cpuid) { return set_cpu_frequency_cap(freqval, cpuid, type); });
}

int EnergyUtil::get_available_freqs(std::vector<int>& freqs, int cpuid) {
    const eas::DeferCancellation deferred;
    const std::size_t before = freqs.size();
    try {
        return append_available(freqs, cpuid) ? succeeded : failed;
    } catch (const std::bad_alloc&) {
        freqs.resize(before);
        return failed;
    }
}

int EnergyUtil::cal_nominal_freq(int cpuid) {
    const eas::DeferCancellation deferred;
    Path path{};
    std::snprintf(path.data(), path.size(), "%s/%d/msr", CPU_MSR_PATH, cpuid);
    const eas::UniqueFd fd(::open(path.data(), O_RDONLY | O_CLOEXEC));
    if (fd.get() <= 0)
        return failed;
    std::uint64_t info = 0;
    if (::pread(fd.get(), &info, sizeof info, msr_platform_info) != sizeof info)
        return failed;
    const int frequency = static_cast<int>(info >> 8 & 0xFF) * khz_per_ratio;
    return frequency >= 1 ? frequency : failed;
}

int EnergyUtil::get_nominal_freq(int cpuid) {
    if (nominal_frequency >= 1)
        return nominal_frequency;
    const eas::DeferCancellation deferred;
    int frequency = cal_nominal_freq(cpuid);
    if (frequency < 1)
        return failed;
    try {
        std::vector<int> freqs;
        if (append_available(freqs, cpuid))
            frequency = nearest(freqs, frequency);
    } catch (const std::bad_alloc&) {
        return failed;  // without the list it would be a near miss, and kept for good
    }
    if (frequency < 1)
        return failed;
    nominal_frequency = frequency;
    return frequency;
}
