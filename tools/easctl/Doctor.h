// The chain from a scheduler's call to the database, and on a node to the hardware, link by link.
#pragma once

#include <string>
#include <vector>

#include "common/CoEfficients.h"
#include "tools/easctl/Database.h"
#include "tools/easctl/Output.h"

namespace easctl {

enum class LinkStatus { ok, warning, missing, denied, wrong, skipped };

struct Link {
    std::string name;
    LinkStatus status = LinkStatus::ok;
    std::string found;    ///< what is there
    std::string meaning;  ///< what follows from it, unless all is well
    std::string remedy;   ///< the command that mends it
};

struct DoctorOptions {
    DatabaseOptions database;
    std::string cluster;
    int default_khz = 0;
    std::string thresholds;
    bool node = false;
    bool node_only = false;
};

/// The links of the database, as far as one can be looked at without the one before. `model` gets
/// the cluster's coefficients, if they are found.
std::vector<Link> examine_database(const DoctorOptions& options, CoEfficients& model);
/// The links of the hardware of this node. `model` may be empty.
std::vector<Link> examine_node(const CoEfficients& model);
/// The one of them that stands behind hwrusage::membytes_xferred, which is 0 without it. The
/// topology must have been read.
Link examine_memory_counters();
constexpr const char* memory_link = "memory counters";

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
/// The first line of a file, without white space at its end; nothing when it cannot be read (errno
/// says why).
std::optional<std::string> first_line(const std::string& path);

}  // namespace easctl
