// Which files of the kernel the library reads: the one list of them, with what a record of a node
// may hold of each. A reader that opens another file adds it here.
#pragma once

#include <array>
#include <string_view>

namespace eas::node {

/// What goes into a record.
enum class Keep {
    whole,
    resctrl_lines,  // of /proc/mounts: other lines name servers
    no_serials,     // all lines but those that begin with "Serial"
    not_at_all      // it tells who or when, and nobody needs it to understand a fault
};

struct PathPattern {
    const char* pattern;  // as for glob(3)
    Keep keep;
};

/// Ends with a null pattern.
extern const PathPattern path_patterns[];

/// The file that names the node; read only for a record that is to hold it.
constexpr const char* host_name_file = "/proc/sys/kernel/hostname";

/// Whether the library's list has this path.
[[nodiscard]] bool is_listed(const char* path);

}  // namespace eas::node
