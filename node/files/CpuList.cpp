#include "node/files/CpuList.h"

#include <algorithm>
#include <charconv>

#include "base/Numbers.h"

namespace eas::node {
namespace {

/// Takes a number off the front of `text`; -1 when there is none, or one that no CPU bears.
int take_cpu(std::string_view& text) {
    int cpu = -1;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), cpu);
    if (problem != std::errc{} || cpu < 0 || cpu >= kMostCpus || !is_digit(text.front()))
        return -1;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return cpu;
}

bool take_range(std::string_view& text, std::vector<bool>& found) {
    const int first = take_cpu(text);
    int last = first;
    if (!text.empty() && text.front() == '-') {
        text.remove_prefix(1);
        last = take_cpu(text);
    }
    if (first < 0 || last < first)
        return false;
    if (found.size() <= static_cast<std::size_t>(last))
        found.resize(static_cast<std::size_t>(last) + 1);
    std::fill(found.begin() + first, found.begin() + last + 1, true);
    return true;
}

bool is_separator(char c) {
    return c == ',' || is_space(c);
}

}  // namespace

std::optional<std::vector<int>> parse_cpu_list(std::string_view text) {
    std::vector<bool> found;
    while (!text.empty() && is_space(text.front()))
        text.remove_prefix(1);
    while (!text.empty()) {
        if (!take_range(text, found) || (!text.empty() && !is_separator(text.front())))
            return std::nullopt;
        while (!text.empty() && is_separator(text.front()))
            text.remove_prefix(1);
    }
    std::vector<int> cpus;
    for (std::size_t cpu = 0; cpu < found.size(); ++cpu)
        if (found[cpu])
            cpus.push_back(static_cast<int>(cpu));
    return cpus;
}

std::string cpu_list_text(const std::vector<int>& cpus) {
    std::string text;
    for (std::size_t i = 0; i < cpus.size();) {
        std::size_t last = i;
        while (last + 1 < cpus.size() && cpus[last + 1] == cpus[last] + 1)
            ++last;
        text += (text.empty() ? "" : ",") + decimal(cpus[i]);
        if (last > i)
            text += '-' + decimal(cpus[last]);
        i = last + 1;
    }
    return text;
}

}  // namespace eas::node
