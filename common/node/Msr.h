// Model-specific registers through the kernel's msr device (msr(4)); needs root and the "msr"
// kernel module. The device is opened and closed for each access. Any thread; registers of a
// socket are shared, so whoever runs a sequence keeps its thread on that socket's CPU.
#pragma once

#include <cstddef>
#include <cstdint>

/// 0 when the register device of CPU 0 opens for reading and writing, else -1.
int checkmsr();

/// Reads a register of a CPU. 0, or -1 with `data` unchanged.
int rdmsr(const int cpu, std::uint32_t reg, std::uint64_t* data);

/// Writes a register of a CPU. 0 or -1.
int wrmsr(const int cpu, std::uint32_t reg, std::uint64_t data);

namespace eas {

/// A register's value; one that cannot be read counts as 0.
[[nodiscard]] std::uint64_t register_or_zero(int cpu, std::uint32_t reg);

/// One step of a register sequence.
struct RegisterStep {
    enum class Kind {
        write,        ///< store `value`
        merge_upper,  ///< read back, keep bits 31..16 only, add `value`, store
    };
    Kind kind;
    std::uint32_t reg;
    std::uint64_t value;
};

/// Runs the steps in order on a CPU. A failed access is passed over: the others still count.
void run_sequence(int cpu, const RegisterStep* steps, std::size_t count);

template <std::size_t Count>
void run_sequence(int cpu, const RegisterStep (&steps)[Count]) {
    run_sequence(cpu, steps, Count);
}

}  // namespace eas
