// PMUs that are devices of their own, as /sys/bus/event_source/devices describes them: memory
// controllers, the data fabric, the energy counters. Each has boxes, and counts for one box where
// an event is opened on the CPU that speaks for it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace eas::node {

/// Where the bits of a term go: "config:0-7,32-35" fills the low bits of the value first.
struct BitRange {
    unsigned first;
    unsigned last;
};
using TermBits = std::vector<BitRange>;

/// The ranges of a format file that lie in the word "config". Null for anything else.
[[nodiscard]] std::optional<TermBits> parse_term_bits(std::string_view text);

/// `value` put into `bits`. Null when it does not fit.
[[nodiscard]] std::optional<std::uint64_t> place_bits(std::uint64_t value, const TermBits& bits);

/// "event=0x04,umask=0x03" as terms and their values; a term alone is 1. Null for anything else.
using Terms = std::vector<std::pair<std::string, std::uint64_t>>;
[[nodiscard]] std::optional<Terms> parse_terms(std::string_view text);

/// An event that the kernel knows by name.
struct NamedEvent {
    std::uint64_t config = 0;
    double scale = 1;  ///< counts x scale = `unit`s
    std::string unit;  ///< as the kernel writes it: "MiB", "Joules"; empty: none
};

struct PmuDevice {
    std::string name;
    std::uint32_t type = 0;
    std::vector<int> cpus;  ///< one for each box

    /// The config of terms, by this device's formats. Null where one of them is not known here.
    [[nodiscard]] std::optional<std::uint64_t> config_of(const Terms& terms) const;

    /// Null where the device has no such event, or describes it in a way that is not understood.
    [[nodiscard]] std::optional<NamedEvent> event(const std::string& event_name) const;

    /// The text of one of the device's files; empty where there is none.
    [[nodiscard]] std::string text(const std::string& file) const;
};

/// Whether `name` is `family`, or `family` and a number behind '_'.
[[nodiscard]] bool is_of_family(std::string_view name, std::string_view family) noexcept;

/// The devices of a family, or whose names a shell pattern matches, by name.
[[nodiscard]] std::vector<PmuDevice> find_pmus(std::string_view family);
[[nodiscard]] std::vector<PmuDevice> find_pmus_like(const char* pattern);

/// Whether any device's name begins like this.
[[nodiscard]] bool has_pmu_like(std::string_view beginning);

}  // namespace eas::node
