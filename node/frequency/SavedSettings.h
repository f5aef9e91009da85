// What was set before a frequency was fixed, as a text that another process can give back. It is
// stored where a daemon keeps its records and read by root: every byte of it is checked.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "node/frequency/Policy.h"
#include "node/frequency/TurboSwitch.h"

namespace eas::node {

struct SavedPolicy {
    std::string driver;
    Settings settings;
};

struct SavedSettings {
    std::string boot;   // the kernel's id of this boot
    int asked = 0;      // the frequency that is fixed after, kHz; 0: not known
    TurboSwitch turbo;  // of all CPUs; kind none: there is none, or it is not to be given back
    std::map<int, SavedPolicy> policies;  // by number, at least one
};

/// Lines of words; policies with the same settings share one. The last line holds a checksum, so
/// that a text that was cut or changed by accident is found.
[[nodiscard]] std::string text_of(const SavedSettings& saved);

/// Null for any text but those that text_of makes.
[[nodiscard]] std::optional<SavedSettings> parse_settings(std::string_view text);

/// The last line of a text that begins with `lines`.
[[nodiscard]] std::string end_line(std::string_view lines);

/// The kernel's id of this boot; "-" when it cannot be read.
[[nodiscard]] std::string boot_id();

}  // namespace eas::node
