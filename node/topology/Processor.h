// Which processor the node has, as /proc/cpuinfo tells it. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace eas::node {

enum class Vendor { other, intel, amd, hygon };

/// Vendor, family and model of the first processor; -1 for a number that is not there.
struct Processor {
    Vendor vendor = Vendor::other;
    int family = -1;
    int model = -1;
    std::string name;  ///< as its maker writes it, else implementer and part; empty: neither
    std::string implementer, part;  ///< of Arm's: "0x41", "0xd4f"
};

/// Reads the text of /proc/cpuinfo up to the end of its first block.
[[nodiscard]] Processor parse_processor(std::string_view cpuinfo);

/// This node's. Unknown throughout where the file cannot be read.
[[nodiscard]] Processor read_processor();

}  // namespace eas::node
