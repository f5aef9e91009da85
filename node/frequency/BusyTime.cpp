#include "node/frequency/BusyTime.h"

#include <limits>
#include <string>

#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"

namespace eas::node {
namespace {

// "cpu0 user nice system idle iowait irq softirq steal guest guest_nice"; guests are in user.
constexpr std::size_t busy_columns[] = {1, 2, 3, 6, 7};
constexpr std::size_t fewest_columns = 8;

void take_line(std::string_view line, BusyTicks& ticks) {
    if (line.substr(0, 3) != "cpu")
        return;
    const std::vector<std::string> words = words_of(line);
    const auto cpu = parse_number(words[0].substr(3));
    if (!cpu || *cpu < 0 || *cpu >= kMostCpus || words.size() < fewest_columns)
        return;
    unsigned long long busy = 0;
    for (const std::size_t column : busy_columns) {
        const auto value = parse_number(words[column]);
        // Each far below what could overflow the sum.
        if (!value || *value < 0 || *value > std::numeric_limits<long long>::max() / 8)
            return;
        busy += static_cast<unsigned long long>(*value);
    }
    ticks.emplace(static_cast<int>(*cpu), busy);
}

}  // namespace

BusyTicks parse_busy_ticks(std::string_view stat) {
    BusyTicks ticks;
    while (!stat.empty()) {
        const std::size_t end = stat.find('\n');
        take_line(stat.substr(0, end), ticks);
        stat.remove_prefix(end == std::string_view::npos ? stat.size() : end + 1);
    }
    return ticks;
}

BusyTicks read_busy_ticks() {
    return parse_busy_ticks(read_text("/proc/stat").text);
}

}  // namespace eas::node
