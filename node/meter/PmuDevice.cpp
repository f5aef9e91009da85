#include "node/meter/PmuDevice.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>

#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"

namespace eas::node {
namespace {

constexpr const char* devices_folder = "/sys/bus/event_source/devices";
constexpr unsigned bits_of_config = 64;

std::string_view next_part(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return part;
}

/// A number in decimal, or in hexadecimal behind "0x".
std::optional<std::uint64_t> parse_value(std::string_view text) {
    const bool hexadecimal = text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
    if (hexadecimal)
        text.remove_prefix(2);
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, hexadecimal ? 16 : 10);
    return error == std::errc{} && rest == end ? std::optional(value) : std::nullopt;
}

std::optional<unsigned> parse_bit(std::string_view text) {
    const auto bit = parse_value(text);
    return bit && *bit < bits_of_config ? std::optional(static_cast<unsigned>(*bit)) : std::nullopt;
}

/// A scale as the kernel writes it: with a decimal point, in any locale.
std::optional<double> parse_scale(std::string_view text) {
    double scale = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, scale);
    const bool usable = error == std::errc{} && rest == end && scale > 0 && scale < 1e30;
    return usable ? std::optional(scale) : std::nullopt;
}

/// The usable ones of those whose names are wanted.
template <typename IsWanted>
std::vector<PmuDevice> devices_of(const IsWanted& is_wanted) {
    std::vector<PmuDevice> devices;
    for (const std::string& name : names_in(devices_folder)) {
        if (!is_wanted(name))
            continue;
        PmuDevice device;
        device.name = name;
        const auto type = parse_number(device.text("type"));
        const auto cpus = parse_cpu_list(device.text("cpumask"));
        if (!type || *type <= 0 || *type > UINT32_MAX || !cpus || cpus->empty())
            continue;
        device.type = static_cast<std::uint32_t>(*type);
        device.cpus = *cpus;
        devices.push_back(std::move(device));
    }
    return devices;
}

}  // namespace

std::optional<TermBits> parse_term_bits(std::string_view text) {
    if (next_part(text, ':') != "config" || text.empty())
        return std::nullopt;
    TermBits bits;
    while (!text.empty()) {
        std::string_view range = next_part(text, ',');
        const auto first = parse_bit(next_part(range, '-'));
        const auto last = range.empty() ? first : parse_bit(range);
        if (!first || !last || *last < *first)
            return std::nullopt;
        bits.push_back({*first, *last});
    }
    return bits;
}

std::optional<std::uint64_t> place_bits(std::uint64_t value, const TermBits& bits) {
    std::uint64_t config = 0;
    for (const BitRange& range : bits) {
        const unsigned width = range.last - range.first + 1;
        const std::uint64_t mask = width == bits_of_config ? ~0ULL : (1ULL << width) - 1;
        config |= (value & mask) << range.first;
        value = width == bits_of_config ? 0 : value >> width;
    }
    return value == 0 ? std::optional(config) : std::nullopt;
}

std::optional<Terms> parse_terms(std::string_view text) {
    Terms terms;
    while (!text.empty()) {
        std::string_view value = next_part(text, ',');
        const bool alone = value.find('=') == std::string_view::npos;
        const std::string_view name = next_part(value, '=');
        const auto number = alone ? std::optional<std::uint64_t>(1) : parse_value(value);
        if (name.empty() || !number)
            return std::nullopt;
        terms.emplace_back(name, *number);
    }
    return terms.empty() ? std::nullopt : std::optional(terms);
}

std::string PmuDevice::text(const std::string& file) const {
    return read_text(std::string(devices_folder) + "/" + name + "/" + file).text;
}

std::optional<std::uint64_t> PmuDevice::config_of(const Terms& terms) const {
    std::uint64_t config = 0;
    for (const auto& [term, value] : terms) {
        const auto bits = parse_term_bits(text("format/" + term));
        const auto placed = bits ? place_bits(value, *bits) : std::nullopt;
        if (!placed)
            return std::nullopt;
        config |= *placed;
    }
    return config;
}

std::optional<NamedEvent> PmuDevice::event(const std::string& event_name) const {
    const std::string file = "events/" + event_name;
    const auto terms = parse_terms(text(file));
    const auto config = terms ? config_of(*terms) : std::nullopt;
    if (!config)
        return std::nullopt;
    NamedEvent found;
    found.config = *config;
    found.unit = text(file + ".unit");
    const std::string scale = text(file + ".scale");
    const auto factor = scale.empty() ? std::optional(1.0) : parse_scale(scale);
    if (!factor)
        return std::nullopt;
    found.scale = *factor;
    return found;
}

bool is_of_family(std::string_view name, std::string_view family) noexcept {
    if (name.substr(0, family.size()) != family)
        return false;
    name.remove_prefix(family.size());
    const bool numbered = name.size() > 1 && name[0] == '_' &&
                          name.find_first_not_of("0123456789", 1) == std::string_view::npos;
    return name.empty() || numbered;
}

std::vector<PmuDevice> find_pmus(std::string_view family) {
    return devices_of([family](const std::string& name) { return is_of_family(name, family); });
}

std::vector<PmuDevice> find_pmus_like(const char* pattern) {
    return devices_of(
        [pattern](const std::string& name) { return ::fnmatch(pattern, name.c_str(), 0) == 0; });
}

bool has_pmu_like(std::string_view beginning) {
    const auto names = names_in(devices_folder);
    return std::any_of(names.begin(), names.end(), [beginning](const std::string& name) {
        return name.compare(0, beginning.size(), beginning) == 0;
    });
}

}  // namespace eas::node
