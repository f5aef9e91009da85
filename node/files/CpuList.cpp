#include "node/files/CpuList.h"

#include <algorithm>

#include "node/files/SmallFile.h"

namespace eas::node {
namespace {

constexpr std::uint64_t last_cpu = 65535;

/// Appends one item, "7" or "0-31". False for anything else.
bool append_item(std::string_view item, std::vector<int>& cpus) {
    const std::size_t dash = item.find('-');
    const auto first = parse_number(item.substr(0, dash));
    const auto last = dash == std::string_view::npos ? first : parse_number(item.substr(dash + 1));
    if (!first || !last || *first > *last || *last > last_cpu)
        return false;
    for (auto cpu = *first; cpu <= *last; ++cpu)
        cpus.push_back(static_cast<int>(cpu));
    return true;
}

}  // namespace

std::optional<std::vector<int>> parse_cpu_list(std::string_view text) {
    constexpr std::size_t most_items = last_cpu + 1;
    std::vector<int> cpus;
    text = trimmed(text);
    while (!text.empty()) {
        const std::size_t end = text.find_first_of(", ");
        if (!append_item(text.substr(0, end), cpus) || cpus.size() > most_items)
            return std::nullopt;
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
        if (text.empty())
            return std::nullopt;
    }
    std::sort(cpus.begin(), cpus.end());
    cpus.erase(std::unique(cpus.begin(), cpus.end()), cpus.end());
    return cpus;
}

std::optional<std::vector<int>> read_cpu_list(const std::string& path) {
    const FileText file = read_file(path);
    return file.good() ? parse_cpu_list(file.text) : std::nullopt;
}

}  // namespace eas::node
