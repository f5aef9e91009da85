#include "node/frequency/SavedSettings.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/Numbers.h"
#include "node/files/CpuList.h"
#include "node/files/PseudoFile.h"

namespace eas::node {
namespace {

// easnode-frequency 1
// boot 0d6d6f0e-6c1f-4d5e-9f86-1a2b3c4d5e6f
// asked 2000000
// no_turbo 0
// policies 0-223 driver=intel_pstate governor=powersave min=800000 max=3800000 ...
// end 6c62272e07bb0142
constexpr std::string_view first_line = "easnode-frequency 1";
constexpr std::size_t longest_text = std::size_t{1} << 20;
constexpr std::size_t longest_word = 36;  // the id of a boot

const char* name_of(TurboSwitch::Kind kind) {
    return kind == TurboSwitch::Kind::boost ? "boost" : "no_turbo";
}

/// The settings of a policy as words; what it does not have is left out.
std::string words_of_policy(const SavedPolicy& policy) {
    const Settings& settings = policy.settings;
    std::string text = "driver=" + policy.driver + " governor=" + settings.governor +
                       " min=" + decimal(settings.min) + " max=" + decimal(settings.max);
    if (settings.speed >= 0)
        text += " speed=" + decimal(settings.speed);
    if (settings.boost >= 0)
        text += " boost=" + decimal(settings.boost);
    if (!settings.preference.empty())
        text += " preference=" + settings.preference;
    return text;
}

// ---- parsing: leniently, since what comes out must give the very text again ----

/// A name of the kernel's: nothing in it can lead out of a file or a line.
bool take_word(std::string_view text, std::string& word) {
    word = text;
    return !text.empty() && text.size() <= longest_word &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return is_digit(c) || (to_lower(c) >= 'a' && to_lower(c) <= 'z') || c == '_' ||
                      c == '-';
           });
}

bool take_number(std::string_view text, int most, int& number) {
    const auto value = parse_number(text);
    number = value && *value >= 0 && *value <= most ? static_cast<int>(*value) : -1;
    return number >= 0;
}

bool take_setting(std::string_view name, std::string_view value, SavedPolicy& policy) {
    Settings& settings = policy.settings;
    if (name == "driver")
        return take_word(value, policy.driver);
    if (name == "governor")
        return take_word(value, settings.governor);
    if (name == "min")
        return take_number(value, INT_MAX, settings.min);
    if (name == "max")
        return take_number(value, INT_MAX, settings.max);
    if (name == "speed")
        return take_number(value, INT_MAX, settings.speed);
    if (name == "boost")
        return take_number(value, 1, settings.boost);
    return name == "preference" && take_word(value, settings.preference);
}

bool take_policies(const std::vector<std::string>& words, SavedSettings& saved) {
    if (words.size() < 2)
        return false;
    SavedPolicy policy;
    for (std::size_t i = 2; i < words.size(); ++i) {
        const std::string_view word = words[i];
        const std::size_t sign = word.find('=');
        if (sign == std::string_view::npos ||
            !take_setting(word.substr(0, sign), word.substr(sign + 1), policy))
            return false;
    }
    const Settings& settings = policy.settings;
    if (policy.driver.empty() || settings.governor.empty() || settings.min > settings.max)
        return false;
    for (const int number : parse_cpu_list(words[1]).value_or(std::vector<int>{}))
        if (!saved.policies.emplace(number, policy).second)
            return false;
    return true;
}

bool take_line(const std::vector<std::string>& words, SavedSettings& saved) {
    if (words.empty() || words[0] == "policies")
        return take_policies(words, saved);
    if (words.size() != 2)
        return false;
    if (words[0] == "boot")
        return take_word(words[1], saved.boot);
    if (words[0] == "asked")
        return take_number(words[1], INT_MAX, saved.asked);
    int value = 0;
    if (!take_number(words[1], 1, value))
        return false;
    const bool boost = words[0] == "boost";
    saved.turbo = {boost ? TurboSwitch::Kind::boost : TurboSwitch::Kind::no_turbo,
                   (value == 1) == boost};
    return boost || words[0] == "no_turbo";
}

}  // namespace

std::string text_of(const SavedSettings& saved) {
    std::string text(first_line);
    text += "\nboot " + saved.boot + '\n';
    if (saved.asked > 0)
        text += "asked " + decimal(saved.asked) + '\n';
    if (saved.turbo.kind != TurboSwitch::Kind::none) {
        const bool boost = saved.turbo.kind == TurboSwitch::Kind::boost;
        text +=
            std::string(name_of(saved.turbo.kind)) + (saved.turbo.on == boost ? " 1\n" : " 0\n");
    }
    std::vector<std::pair<std::string, std::vector<int>>> lines;  // by their lowest policy
    for (const auto& [number, policy] : saved.policies) {
        const std::string words = words_of_policy(policy);
        auto line = std::find_if(lines.begin(), lines.end(),
                                 [&words](const auto& one) { return one.first == words; });
        if (line == lines.end())
            line = lines.insert(lines.end(), {words, {}});
        line->second.push_back(number);
    }
    for (const auto& [words, numbers] : lines)
        text += "policies " + cpu_list_text(numbers) + ' ' + words + '\n';
    return text + end_line(text);
}

std::optional<SavedSettings> parse_settings(std::string_view text) {
    if (text.size() > longest_text || text.substr(0, first_line.size()) != first_line)
        return std::nullopt;
    SavedSettings saved;
    std::string_view rest = text.substr(std::min(text.size(), first_line.size() + 1));
    for (std::size_t end; (end = rest.find('\n')) != std::string_view::npos;) {
        const std::vector<std::string> words = words_of(rest.substr(0, end));
        rest.remove_prefix(end + 1);
        if (words.size() == 2 && words[0] == "end")
            break;
        if (!take_line(words, saved))
            return std::nullopt;
    }
    if (saved.policies.empty() || text_of(saved) != text)
        return std::nullopt;
    return saved;
}

std::string end_line(std::string_view lines) {
    std::uint64_t hash = 0xcbf29ce484222325U;  // FNV-1a; against accidents, not against an attacker
    for (const char c : lines)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    std::array<char, 16> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), hash, 16).ptr;
    const auto length = static_cast<std::size_t>(end - digits.data());
    return "end " + std::string(digits.size() - length, '0') + std::string(digits.data(), length) +
           '\n';
}

std::string boot_id() {
    const FileText file = read_text("/proc/sys/kernel/random/boot_id");
    return file.good() && !file.text.empty() ? file.text : "-";
}

}  // namespace eas::node
