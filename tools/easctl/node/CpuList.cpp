#include "tools/easctl/node/CpuList.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <sstream>
#include <string_view>

#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/node/FrequencyControl.h"

namespace easctl {
namespace {

[[noreturn]] void fail(const std::string& text) {
    throw Failure(ExitCode::usage, "\"" + text + "\" is no list of processors",
                  "write it as \"0-3,8\" or \"all\"");
}

int parse_cpu(std::string_view text, const std::string& whole) {
    int cpu = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), cpu);
    if (error != std::errc{} || end != text.data() + text.size() || cpu < 0)
        fail(whole);
    return cpu;
}

}  // namespace

std::vector<int> parse_cpus(const std::string& text) {
    std::vector<int> present = all_cpus();
    if (text == "all")
        return present;
    std::set<int> wanted;
    std::istringstream pieces(text);
    for (std::string piece; std::getline(pieces, piece, ',');) {
        const std::size_t dash = piece.find('-');
        const int first = parse_cpu(std::string_view(piece).substr(0, dash), text);
        const int last = dash == std::string::npos
                             ? first
                             : parse_cpu(std::string_view(piece).substr(dash + 1), text);
        if (last < first)
            fail(text);
        for (int cpu = first; cpu <= last; ++cpu) {
            if (std::find(present.begin(), present.end(), cpu) == present.end())
                throw Failure(ExitCode::usage,
                              "cpu" + std::to_string(cpu) + ": this node has no such processor");
            wanted.insert(cpu);
        }
    }
    if (wanted.empty())
        fail(text);
    return {wanted.begin(), wanted.end()};
}

std::string cpu_text(const std::vector<int>& cpus) {
    std::vector<int> sorted = cpus;
    std::sort(sorted.begin(), sorted.end());
    std::string text;
    for (std::size_t i = 0; i < sorted.size();) {
        std::size_t last = i;
        while (last + 1 < sorted.size() && sorted[last + 1] == sorted[last] + 1)
            ++last;
        text += (text.empty() ? "" : " ") + std::to_string(sorted[i]);
        if (last > i)
            text += '-' + std::to_string(sorted[last]);
        i = last + 1;
    }
    return text;
}

}  // namespace easctl
