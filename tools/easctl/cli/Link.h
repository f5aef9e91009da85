// A link of the chain from a scheduler's call to the database, and on a node to the hardware: what
// stands there, what follows from it and what mends it.
#pragma once

#include <string>
#include <vector>

#include "tools/easctl/cli/Output.h"

namespace easctl {

enum class LinkId {
    none,
    // from a call of the library to the coefficients
    locator,
    driver_manager,
    pooling,
    data_source,
    driver,
    connection,
    schema,
    rights,
    coefficients,
    thresholds,
    tags,
    drift,
    // what libeasnode measures and sets on the node
    processor,
    instructions,
    memory_traffic,
    energy,
    frequency_control,
    frequencies,
    // what gethwrusage counts there
    old_processor,
    registers,
    core_counters,
    memory_counters,
};

enum class LinkStatus { ok, warning, missing, denied, wrong, skipped };

struct Link {
    std::string name;
    LinkStatus status = LinkStatus::ok;
    std::string found;    ///< what is there
    std::string meaning;  ///< what follows from it, unless all is well
    std::string remedy;   ///< the command that mends it
    LinkId id = LinkId::none;
};

/// `link` as the one of that id.
Link identified(LinkId id, Link link);

const char* name_of(LinkStatus status) noexcept;
/// Missing, denied or wrong.
bool is_broken(const Link& link);
/// Neither broken nor skipped: what was not looked at is not known to hold.
bool holds(const Link& link);
/// A line per link, with what follows and what to do below it.
std::string text_of(const std::vector<Link>& links, bool colored);
Json json_of(const std::vector<Link>& links);

/// "denied" when `error` (of errno) says that a privilege is missing, else "missing".
LinkStatus status_of(int error);

}  // namespace easctl
