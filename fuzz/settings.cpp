// Texts in the place of saved frequency settings, which root reads and writes into /sys; each as it
// is, and with the last line that its others would have. /proc/stat and lists of CPUs beside it.
#include "fuzz/Fuzz.h"
#include "node/files/CpuList.h"
#include "node/frequency/BusyTime.h"
#include "node/frequency/Nominal.h"
#include "node/frequency/SavedSettings.h"

using eas::fuzz::check;

namespace {

void check_word(const std::string& word) {
    check(!word.empty() && word.size() < 64, "a word is short");
    check(word.find_first_of("/. \n=") == std::string::npos, "and leads out of no file or line");
    check(word.find('\0') == std::string::npos, "nor ends early");
}

void check_settings(const std::string& text) {
    const auto saved = eas::node::parse_settings(text);
    if (!saved)
        return;
    check(eas::node::text_of(*saved) == text, "a text is taken as it would be written");
    check(!saved->policies.empty(), "it gives something back");
    for (const auto& [number, policy] : saved->policies) {
        check(number >= 0 && number < 65536, "a policy has a number");
        check_word(policy.driver);
        check_word(policy.settings.governor);
        if (!policy.settings.preference.empty())
            check_word(policy.settings.preference);
        check(policy.settings.min >= 0 && policy.settings.min <= policy.settings.max,
              "limits are in order");
    }
}

void check_list(const std::string& text) {
    const auto cpus = eas::node::parse_cpu_list(text);
    if (cpus)
        check(eas::node::parse_cpu_list(eas::node::cpu_list_text(*cpus)) == cpus,
              "a list comes back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = eas::fuzz::text_of(data, size);
    check_settings(text);
    check_settings(text + eas::node::end_line(text));
    check_list(text);
    for (const auto& [cpu, ticks] : eas::node::parse_busy_ticks(text))
        check(cpu >= 0, "a CPU has a number");
    check(eas::node::nominal_in_name(text) >= 0, "a name gives a frequency or none");
    return 0;
}
