// Which tags a command means.
#pragma once

#include <string>
#include <vector>

#include "tools/easctl/cli/Options.h"
#include "tools/easctl/tag/Library.h"

namespace easctl {

struct TagNames {
    std::string user;
    std::string tag;

    /// `required`: one tag is meant; otherwise what is left out matches all.
    void add_to(CLI::App& command, bool required);
};

/// What a command about tags that its options name needs.
struct TagChoice {
    LibraryOptions library;
    TagNames names;

    /// Adds the command with its options; `required`: one tag is meant.
    CLI::App& add_command(CLI::App& group, const char* name, const char* description,
                          const char* examples, bool required);
};

/// Throws Failure unless there is exactly one.
const EnergyTag& the_only(const std::vector<EnergyTag>& tags, const TagNames& names);

/// A name of a policy.
Check a_policy();

}  // namespace easctl
