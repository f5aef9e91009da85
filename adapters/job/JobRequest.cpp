#include "adapters/job/JobRequest.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace eas::job {
namespace {

constexpr std::string_view allowed =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
constexpr std::size_t longest_tag = 255;

// What schedulers call a job whose user gave it no name.
constexpr std::array<std::string_view, 4> shared_names{"bash", "sh", "interactive", "wrap"};

}  // namespace

bool is_tag_name(std::string_view text) {
    return !text.empty() && text.size() <= longest_tag &&
           text.find_first_not_of(allowed) == std::string_view::npos;
}

std::string tag_of_name(std::string_view name) {
    if (std::find(shared_names.begin(), shared_names.end(), name) != shared_names.end())
        return "";
    std::string tag(name.substr(0, longest_tag));
    for (char& c : tag)
        if (allowed.find(c) == std::string_view::npos)
            c = '_';
    return tag;
}

bool is_policy(std::string_view text) {
    return text == "minimize_energy" || text == "minimize_time" || text == "none";
}

// Slurm's own host lists would answer as well, but their types change between its releases.
std::string first_node(std::string_view nodes) {
    std::string name;
    bool in_brackets = false;
    bool in_first_number = false;
    for (const char c : nodes) {
        if (c == '[') {
            in_brackets = in_first_number = true;
        } else if (c == ']') {
            in_brackets = false;
        } else if (!in_brackets && c == ',') {
            break;
        } else if (in_brackets && (c == '-' || c == ',')) {
            in_first_number = false;
        } else if (!in_brackets || in_first_number) {
            name += c;
        }
    }
    return name;
}

namespace {

unsigned number(std::string_view digits) {
    unsigned value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
}

/// Of "1-3,7".
unsigned length_of_range(std::string_view range) {
    unsigned length = 0;
    while (!range.empty()) {
        const auto comma = std::min(range.find(','), range.size());
        const std::string_view part = range.substr(0, comma);
        const auto dash = part.find('-');
        length += dash == std::string_view::npos
                      ? 1
                      : number(part.substr(dash + 1)) - number(part.substr(0, dash)) + 1;
        range.remove_prefix(std::min(comma + 1, range.size()));
    }
    return length;
}

}  // namespace

unsigned number_of_nodes(std::string_view nodes) {
    unsigned total = 0, name = nodes.empty() ? 0 : 1;
    while (!nodes.empty()) {
        const char c = nodes.front();
        const auto close = std::min(nodes.find(']'), nodes.size());
        if (c == '[') {
            name *= length_of_range(nodes.substr(1, close - 1));
            nodes.remove_prefix(close);
        } else if (c == ',') {
            total += std::exchange(name, 1U);
        }
        nodes.remove_prefix(std::min<std::size_t>(1, nodes.size()));
    }
    return total + name;
}

}  // namespace eas::job
