// What the tests of the tool on fake nodes share: a small node, and what is set on it.
#pragma once

#include <string>

#include "tests/node/NodeTest.h"
#include "tests/support/ScratchFolder.h"

namespace eas::test {

class SmallNodeTest : public NodeTest {
  protected:
    [[nodiscard]] std::string path(const char* name) const { return folder_.path(name); }

    /// One core per CPU, so that every thread of a kernel is counted.
    static NodeShape small_node() {
        NodeShape shape = of_model(44, 1, 2, 1);
        shape.frequencies = {2667000, 2400000, 1600000};
        shape.nonturbo_ratio = 18;  // 2400000
        return shape;
    }

    ScratchFolder folder_;
};

inline std::string cpufreq(int cpu, const char* file) {
    return read_file("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/" + file);
}

/// Governor of the first CPU, governor and frequency of the second.
inline std::string settings() {
    return cpufreq(0, "scaling_governor") + cpufreq(1, "scaling_governor") +
           cpufreq(1, "scaling_cur_freq");
}

}  // namespace eas::test
