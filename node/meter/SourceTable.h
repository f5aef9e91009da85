// The sources that there are, in the order in which they are tried. Any thread.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "node/meter/Source.h"

namespace eas::node {

/// What is measured by one source at a time.
enum class SourceList { core, memory, energy };
constexpr std::size_t source_lists = 3;

/// When a source is tried although nobody named it.
enum class Default { always, with_estimates, with_command, never };

struct SourceRow {
    SourceList list;
    const char* name;
    Default by_default;
    OpenSource open;
};

/// All sources of a list, in the default order.
[[nodiscard]] std::vector<const SourceRow*> sources_of(SourceList list);

/// Those to be tried, in order. `names`: "umc,resctrl", "none", or null for the default order. Null
/// when it names a source that the list does not have.
[[nodiscard]] std::optional<std::vector<const SourceRow*>> parse_sources(SourceList list,
                                                                         const char* names,
                                                                         bool estimates,
                                                                         bool command);

}  // namespace eas::node
