// The processors of family 6 that the node functions know, one row each. Constant; any thread.
#pragma once

#include <array>
#include <cstdint>

namespace eas {

/// How memory traffic is counted; none: it reads as 0.
enum class MemoryMethod { none, uncore_msrs, memory_channels, uncore_boxes };

struct ProcessorModel {
    int model;
    bool sampled;             ///< its counters can be programmed
    std::uint64_t bus_clock;  ///< Hz, unit of the ratios in MSR 0xCE
    MemoryMethod memory;
    bool thermal_sensor;  ///< has the thermal registers that are read here
};

constexpr std::uint64_t clock_100 = 100000000;
constexpr std::uint64_t clock_133 = 133333333;

/// Model 30 (0x1E, a client with the uncore of model 26) is stored as 26 before it is looked up.
inline constexpr std::array<ProcessorModel, 10> processor_models = {{
    {23, false, clock_133, MemoryMethod::none, false},           // 0x17, memory controller outside
    {26, true, clock_133, MemoryMethod::uncore_msrs, true},      // 0x1A
    {28, false, clock_133, MemoryMethod::none, false},           // 0x1C, no uncore
    {37, true, clock_133, MemoryMethod::uncore_msrs, true},      // 0x25
    {42, true, clock_100, MemoryMethod::none, false},            // 0x2A, client
    {44, true, clock_133, MemoryMethod::uncore_msrs, true},      // 0x2C
    {45, true, clock_100, MemoryMethod::memory_channels, true},  // 0x2D
    {46, true, clock_133, MemoryMethod::none, false},            // 0x2E
    {47, true, clock_133, MemoryMethod::uncore_boxes, true},     // 0x2F
    {62, true, clock_100, MemoryMethod::memory_channels, true},  // 0x3E
}};

/// Null for a model that has no row.
[[nodiscard]] const ProcessorModel* find_model(int model) noexcept;

/// How the memory traffic of a model is counted.
[[nodiscard]] MemoryMethod memory_method(int model) noexcept;

}  // namespace eas
