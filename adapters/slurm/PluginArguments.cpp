#include "adapters/slurm/PluginArguments.h"

#include <charconv>
#include <string_view>

namespace eas::slurm {
namespace {

constexpr int longest_limit = 120;  // s; more would look like a hanging node

struct TextArgument {
    std::string_view name;
    std::string PluginArguments::*value;
    bool is_path;
};

constexpr TextArgument text_arguments[] = {
    {"library", &PluginArguments::library, false},
    {"cluster", &PluginArguments::cluster, false},
    {"thresholds", &PluginArguments::thresholds, true},
    {"state", &PluginArguments::state, true},
    {"odbcini", &PluginArguments::odbcini, true},
    {"odbcsysini", &PluginArguments::odbcsysini, true},
};

struct NumberArgument {
    std::string_view name;
    int PluginArguments::*value;
    int most;
};

constexpr NumberArgument number_arguments[] = {
    {"default_frequency", &PluginArguments::default_frequency, 999999999},
    {"limit", &PluginArguments::limit, longest_limit},
};

bool set_text(PluginArguments& arguments, std::string_view name, std::string_view value) {
    for (const TextArgument& known : text_arguments) {
        if (name != known.name)
            continue;
        if (value.empty() || (known.is_path && value.front() != '/'))
            return false;
        arguments.*known.value = value;
        return true;
    }
    return false;
}

bool set_number(PluginArguments& arguments, std::string_view name, std::string_view value) {
    for (const NumberArgument& known : number_arguments) {
        if (name != known.name)
            continue;
        int number = 0;
        const auto [end, error] =
            std::from_chars(value.data(), value.data() + value.size(), number);
        if (error != std::errc{} || end != value.data() + value.size() || number < 1 ||
            number > known.most)
            return false;
        arguments.*known.value = number;
        return true;
    }
    return false;
}

}  // namespace

PluginArguments parse_arguments(int count, char** words) {
    PluginArguments arguments;
    for (int i = 0; i < count; ++i) {
        const std::string_view word = words[i];
        const size_t sign = word.find('=');
        const std::string_view name = word.substr(0, sign);
        const std::string_view value =
            sign == std::string_view::npos ? std::string_view{} : word.substr(sign + 1);
        if (!set_text(arguments, name, value) && !set_number(arguments, name, value))
            arguments.complaints.push_back("plugstack.conf: \"" + std::string(word) +
                                           "\" is not understood and left out");
    }
    return arguments;
}

}  // namespace eas::slurm
