#include "adapters/job/SiteSettings.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>

namespace eas::job {
namespace {

constexpr int longest_limit = 120;  // s; more would look like a hanging node
constexpr int highest_khz = 999999999;

enum class Kind { any, path, policy, tag, record, yes_no };

struct TextSetting {
    std::string_view name;
    std::string SiteSettings::*value;
    Kind kind;
};

constexpr TextSetting text_settings[] = {
    {"library", &SiteSettings::library, Kind::any},
    {"node_library", &SiteSettings::node_library, Kind::any},
    {"cluster", &SiteSettings::cluster, Kind::any},
    {"thresholds", &SiteSettings::thresholds, Kind::path},
    {"state", &SiteSettings::state, Kind::path},
    {"odbcini", &SiteSettings::odbcini, Kind::path},
    {"odbcsysini", &SiteSettings::odbcsysini, Kind::path},
    {"default_policy", &SiteSettings::default_policy, Kind::policy},
    {"tag", &SiteSettings::tag, Kind::tag},
    {"record", &SiteSettings::record, Kind::record},
    {"record_file", &SiteSettings::record_file, Kind::path},
    {"observe", &SiteSettings::observe, Kind::yes_no},
    {"energy_sources", &SiteSettings::energy_sources, Kind::any},
};

struct NumberSetting {
    std::string_view name;
    int SiteSettings::*value;
    int most;
};

constexpr NumberSetting number_settings[] = {
    {"default_frequency", &SiteSettings::default_frequency, highest_khz},
    {"limit", &SiteSettings::limit, longest_limit},
    {"spread", &SiteSettings::spread, 1000},
};

bool is_allowed(Kind kind, std::string_view value) {
    switch (kind) {
        case Kind::path:
            return value.front() == '/';
        case Kind::policy:
            return value == "minimize_energy" || value == "minimize_time";
        case Kind::tag:
            return value == "option" || value == "jobname";
        case Kind::record:
            return value == "none" || value == "accounting" || value == "file";
        case Kind::yes_no:
            return value == "yes" || value == "no";
        default:
            return true;
    }
}

/// The number if it is one, 1 to `most`; else 0.
int number_of(std::string_view value, int most) {
    int number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    const bool whole = error == std::errc{} && end == value.data() + value.size();
    return whole && number >= 1 && number <= most ? number : 0;
}

bool set(SiteSettings& settings, std::string_view name, std::string_view value) {
    if (value.empty())
        return false;
    for (const TextSetting& known : text_settings) {
        if (name != known.name || !is_allowed(known.kind, value))
            continue;
        settings.*known.value = value;
        return true;
    }
    for (const NumberSetting& known : number_settings) {
        const int number = name == known.name ? number_of(value, known.most) : 0;
        if (number == 0)
            continue;
        settings.*known.value = number;
        return true;
    }
    return false;
}

bool set(NodeType& type, std::string_view name, std::string_view value) {
    if (value.empty())
        return false;
    if (name == "cluster")
        type.cluster = value;
    else if (name == "thresholds" && value.front() == '/')
        type.thresholds = value;
    else if (name == "default_frequency" && number_of(value, highest_khz) != 0)
        type.default_frequency = number_of(value, highest_khz);
    else
        return false;
    return true;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

template <typename Target>
bool set_word(Target& target, std::string_view word) {
    const auto sign = word.find('=');
    return sign != std::string_view::npos &&
           set(target, trimmed(word.substr(0, sign)), trimmed(word.substr(sign + 1)));
}

void read_line(std::string_view line, SiteSettings& settings, bool& in_type) {
    if (line.empty() || line.front() == '#')
        return;
    if (line.front() == '[' && line.back() == ']' && line.size() > 2) {
        settings.types.push_back({std::string(line.substr(1, line.size() - 2)), "", "", 0});
        in_type = true;
    } else if (!(in_type ? set_word(settings.types.back(), line) : set_word(settings, line))) {
        settings.complaints.push_back("configuration file: \"" + std::string(line) +
                                      "\" is not understood and left out");
    }
}

void read_file(const std::string& path, SiteSettings& settings) {
    std::ifstream file(path);
    if (!file)
        settings.complaints.push_back(path + " cannot be read");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    read_lines(text, settings);
}

bool holds_word(std::string_view list, std::string_view word) {
    while (!list.empty()) {
        const auto comma = std::min(list.find(','), list.size());
        if (trimmed(list.substr(0, comma)) == word)
            return true;
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return false;
}

}  // namespace

void read_lines(std::string_view text, SiteSettings& settings) {
    bool in_type = false;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        read_line(trimmed(text.substr(0, end)), settings, in_type);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

SiteSettings parse_settings(int count, const char* const* words) {
    constexpr std::string_view file = "config=/";
    SiteSettings settings;
    for (int i = 0; i < count; ++i) {
        const std::string_view word = words[i];
        if (word.substr(0, file.size()) == file)
            read_file(std::string(word.substr(file.size() - 1)), settings);
        else if (!set_word(settings, word))
            settings.complaints.push_back("plugstack.conf: \"" + std::string(word) +
                                          "\" is not understood and left out");
    }
    return settings;
}

SiteSettings settings_of_node(SiteSettings settings, std::string_view features) {
    for (const NodeType& type : settings.types) {
        if (!holds_word(features, type.feature))
            continue;
        settings.type = type.feature;
        if (!type.cluster.empty())
            settings.cluster = type.cluster;
        if (!type.thresholds.empty())
            settings.thresholds = type.thresholds;
        if (type.default_frequency != 0)
            settings.default_frequency = type.default_frequency;
        break;
    }
    return settings;
}

}  // namespace eas::job
