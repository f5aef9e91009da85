// A meter: for each list of sources the one that serves, and what became of the others. One thread
// at a time.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "node/meter/SourceTable.h"
#include "node/node.h"

namespace eas::node {

/// What a meter is to be: the request of its sources, and which are tried, in order.
struct MeterPlan {
    Request request;
    std::array<std::vector<const SourceRow*>, source_lists> order;
};

class Meter {
  public:
    /// Opens the first source of each list that serves.
    explicit Meter(MeterPlan plan);

    /// Reads all sources. `reading` is filled but for its size.
    void read(easnode_reading& reading);

    /// What became of the source at this place of the figure's list. False: there is none.
    [[nodiscard]] bool describe(int figure, std::size_t index, easnode_source& source) const;

  private:
    /// A source that may be used, and why it is not.
    struct Candidate {
        const SourceRow* row;
        easnode_source_state state;
        std::string reason;
    };
    struct Slot {
        std::vector<Candidate> candidates;
        const char* name = "";
        std::string why_none;  // where no source serves
        std::unique_ptr<Source> source;
        Result result;
    };

    static std::string why_none_serves(const std::vector<Candidate>& tried);
    void open_slot(SourceList list, const std::vector<const SourceRow*>& order);
    void read_slot(Slot& slot, Nanoseconds now);
    static void fill(const Slot& slot, std::size_t value, easnode_figure& figure);

    Request request_;
    std::array<Slot, source_lists> slots_;
};

}  // namespace eas::node
