#include "common/node/Msr.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "base/UniqueFd.h"
#include "common/node/EasMisc.h"

namespace {

constexpr std::uint64_t upper_half_of_low_word = 0xFFFF0000;  // bits 31..16

eas::UniqueFd open_register_device(int cpu, int flags) {
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/dev/cpu/%d/msr", cpu);
    return eas::UniqueFd(::open(path.data(), flags | O_CLOEXEC));
}

}  // namespace

int checkmsr() {
    return open_register_device(0, O_RDWR).is_open() ? 0 : -1;
}

int rdmsr(const int cpu, std::uint32_t reg, std::uint64_t* data) {
    const eas::UniqueFd fd = open_register_device(cpu, O_RDONLY);
    if (!fd.is_open())
        return -1;
    std::uint64_t value = 0;
    if (::pread(fd.get(), &value, sizeof value, static_cast<off_t>(reg)) != sizeof value)
        return -1;
    *data = value;
    return 0;
}

int wrmsr(const int cpu, std::uint32_t reg, std::uint64_t data) {
    const eas::UniqueFd fd = open_register_device(cpu, O_WRONLY);
    if (!fd.is_open())
        return -1;
    const ssize_t written = ::pwrite(fd.get(), &data, sizeof data, static_cast<off_t>(reg));
    return written == sizeof data ? 0 : -1;
}

int extract_bits(unsigned long long val, int high, int low) {
    const long long bits = static_cast<long long>(high) - low + 1;
    unsigned long long result = val;
    if (bits < 64) {
        if (bits < 1 || low < 0 || low > 63)
            return 0;
        result = (val >> low) & ((1ULL << bits) - 1);
    }
    return static_cast<int>(static_cast<std::uint32_t>(result));
}

namespace eas {

std::uint64_t register_or_zero(int cpu, std::uint32_t reg) {
    std::uint64_t value = 0;
    rdmsr(cpu, reg, &value);
    return value;
}

void run_sequence(int cpu, const RegisterStep* steps, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const RegisterStep& step = steps[i];
        std::uint64_t value = step.value;
        if (step.kind == RegisterStep::Kind::merge_upper) {
            value |= register_or_zero(cpu, step.reg) & upper_half_of_low_word;
        }
        wrmsr(cpu, step.reg, value);
    }
}

}  // namespace eas
