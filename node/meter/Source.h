// What every source of a figure is: opened once, it counts from then on; each reading gives all
// that it counted since. A source belongs to one meter, and is used by one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "node/node.h"

namespace eas::node {

using Nanoseconds = std::uint64_t;
constexpr double nanoseconds_per_second = 1e9;
constexpr Nanoseconds millisecond = 1'000'000;
constexpr double micro = 1e-6;
constexpr double mebibyte = 1048576;

/// What a source counted since it was opened, or why there is no count.
struct Result {
    std::array<double, 2> values{};  ///< the second one: instructions beside cycles
    easnode_quality quality = EASNODE_COUNTED;
    std::string reason;  ///< empty: the values count
    bool ended = false;  ///< there will be no value any more

    /// No value in this reading.
    void wait_for(std::string why_not) { reason = std::move(why_not); }
    /// No value in this reading and in no later one.
    void end(std::string why_not) {
        reason = std::move(why_not);
        ended = true;
    }
};

/// What a source's figure is about.
struct Coverage {
    easnode_extent extent = EASNODE_NO_EXTENT;
    std::string words;
    Nanoseconds read_within = 0;  ///< 0: may be read as seldom as one likes
};

class Source {
  public:
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source() = default;

    /// Reads once. `now` is the time of the reading, CLOCK_MONOTONIC.
    virtual void read(Nanoseconds now, Result& result) = 0;

    [[nodiscard]] const Coverage& coverage() const noexcept { return coverage_; }

  protected:
    Coverage coverage_;
};

/// What the meter's user asked for, as far as sources need it.
struct Request {
    pid_t process = 0;                 ///< 0: the node
    std::vector<std::string> command;  ///< the site's command and its arguments
    bool command_gives_joules = false;
    Nanoseconds command_limit = 0;
    int registers = EASNODE_REGISTERS_IF_FREE;
    Nanoseconds now = 0;  ///< when the meter is opened
};

/// Opens a source, or gives null and a `reason`.
using OpenSource = std::unique_ptr<Source> (*)(const Request& request, std::string& reason);

std::unique_ptr<Source> open_core_events(const Request&, std::string& reason);
std::unique_ptr<Source> open_cache_misses(const Request&, std::string& reason);
std::unique_ptr<Source> open_intel_controllers(const Request&, std::string& reason);
std::unique_ptr<Source> open_amd_controllers(const Request&, std::string& reason);
std::unique_ptr<Source> open_data_fabric(const Request&, std::string& reason);
std::unique_ptr<Source> open_arm_memory(const Request&, std::string& reason);
std::unique_ptr<Source> open_resctrl(const Request&, std::string& reason);
std::unique_ptr<Source> open_registers(const Request&, std::string& reason);
std::unique_ptr<Source> open_node_counter(const Request&, std::string& reason);
std::unique_ptr<Source> open_platform_meter(const Request&, std::string& reason);
std::unique_ptr<Source> open_power_meter(const Request&, std::string& reason);
std::unique_ptr<Source> open_rapl_pmu(const Request&, std::string& reason);
std::unique_ptr<Source> open_powercap(const Request&, std::string& reason);
std::unique_ptr<Source> open_psys(const Request&, std::string& reason);
std::unique_ptr<Source> open_site_command(const Request&, std::string& reason);

/// The time now, CLOCK_MONOTONIC.
[[nodiscard]] Nanoseconds monotonic_now() noexcept;

}  // namespace eas::node
