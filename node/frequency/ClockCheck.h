// Counts at which clock CPUs run while they are busy: core cycles against cycles of the nominal
// frequency, or against the busy time of /proc/stat. Belongs to one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "node/frequency/BusyTime.h"
#include "node/frequency/NodeFrequency.h"
#include "node/frequency/Verdict.h"
#include "node/meter/PerfGroup.h"

namespace eas::node {

class ClockCheck {
  public:
    /// Counts from now on, if anything can be counted.
    ClockCheck(const NodeFrequency& frequency, int khz);

    /// What was counted since. `text` says why it cannot be told, or what may hold the clock.
    [[nodiscard]] ClockVerdict end(std::string& text);

    [[nodiscard]] int asked() const { return khz_; }
    /// What is counted; empty: nothing can be.
    [[nodiscard]] const char* source() const { return source_; }

  private:
    struct Counted {
        int cpu;
        int nominal_khz;
        PerfGroup group;
    };

    bool open(const char* source, const std::vector<EventCode>& codes, bool of_core);
    void choose_source();
    [[nodiscard]] std::vector<CpuClock> clocks(double seconds);
    [[nodiscard]] std::string explain(const ClockVerdict& verdict) const;

    std::vector<Policy> policies_;
    std::vector<int> cpus_;
    int khz_;
    double began_ = 0;
    bool by_busy_time_ = false;
    const char* source_ = "";
    std::string reason_;
    std::vector<Counted> counted_;
    BusyTicks ticks_;
};

}  // namespace eas::node
