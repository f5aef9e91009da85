// Events of PMU devices, summed over all their boxes: one system call reads a box.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "node/meter/PerfGroup.h"
#include "node/meter/PmuDevice.h"
#include "node/meter/Source.h"

namespace eas::node {

/// An event of a box, and what one count of it is worth (bytes, joules).
struct BoxEvent {
    std::uint64_t config;
    double worth;
};

class BoxEvents {
  public:
    /// Opens `events` as one group on each of the device's `cpus`. 0 or errno.
    int add(const PmuDevice& device, const std::vector<BoxEvent>& events);

    [[nodiscard]] bool empty() const noexcept { return boxes_.empty(); }
    [[nodiscard]] std::size_t size() const noexcept { return boxes_.size(); }
    void clear() noexcept { boxes_.clear(); }

    /// Gives all worth counted since opening as the result's first value, and its quality.
    void read(Result& result);

  private:
    struct Box {
        std::string name;
        std::vector<double> worth;
        PerfGroup group;
    };

    std::vector<Box> boxes_;
    bool scaled_ = false;
};

}  // namespace eas::node
