#include "adapters/slurm/JobRequest.h"

namespace eas::slurm {

bool is_tag_name(std::string_view text) {
    constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
    return !text.empty() && text.size() <= 255 &&
           text.find_first_not_of(allowed) == std::string_view::npos;
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

}  // namespace eas::slurm
