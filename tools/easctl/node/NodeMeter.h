// The node's meter, as the commands use it.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "node/node.h"
#include "tools/easctl/cli/Options.h"

namespace easctl {

/// Which sources, as on the command line. An empty list: the default order.
struct MeterOptions {
    std::string core, memory, energy;  // names between commas
    std::string power_command;         // words between blanks; the first is a path
    bool estimate = false;
    bool force = false;  // programs counters that are in use already

    void add_to(CLI::App& command);
    /// Adds --force, for a command that may program counters.
    void add_force_to(CLI::App& command);
};

/// Empty while the figure is missing.
std::optional<double> value_of(const easnode_figure& figure);
/// "packages-and-memory".
const char* name_of_extent(int extent);
/// "rapl-perf: RAPL package+DRAM: not the whole node", or why there is no figure.
std::string text_of(const easnode_figure& figure);

class NodeMeter {
  public:
    /// Whether counters may be programmed, or are only looked at.
    enum class Use { measure, look };

    /// Counts from now on: the core counts of `process` and what it starts, those of the node for
    /// 0. Throws Failure for a wrong list, and for memory counters that would serve but are in use.
    explicit NodeMeter(const MeterOptions& options, pid_t process = 0, Use use = Use::measure);

    easnode_reading read();
    /// Reads where a source must not be left alone for longer; to be called several times a second.
    void keep_up();
    /// What became of each source of a figure, those that were to be tried first.
    [[nodiscard]] std::vector<easnode_source> sources(easnode_figure_id figure) const;

    /// The one that serves; empty: none does.
    [[nodiscard]] std::optional<easnode_source> serving(easnode_figure_id figure) const;

  private:
    void refuse_counters_in_use() const;

    struct Close {
        void operator()(easnode_meter* meter) const { easnode_meter_close(meter); }
    };

    std::unique_ptr<easnode_meter, Close> meter_;
    double read_at_ = 0;      // monotonic clock, s
    double read_within_ = 0;  // s; 0: no need
};

/// What the figures of a reading come from, for a file: measurements with different texts have no
/// common measure. "rapl/packages-and-memory imc/node".
std::string meter_text(const easnode_reading& reading);

}  // namespace easctl
