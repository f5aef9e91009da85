// A meter of the library in a test: readings compared with the one before, and what became of its
// sources.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "node/node.h"

namespace eas::test {

using namespace std::chrono_literals;

/// Whether `value` is off by no more than that share.
inline bool near(double wanted, double value, double share) {
    return std::abs(value - wanted) <= share * std::abs(wanted);
}

/// A meter whose readings are compared with the one before.
class Metered {
  public:
    explicit Metered(easnode_meter_options options = {}) {
        options.size = sizeof options;
        EXPECT_EQ(EASNODE_OK, easnode_meter_open(&options, &meter_));
        last_ = next();
    }
    ~Metered() { easnode_meter_close(meter_); }
    Metered(const Metered&) = delete;
    Metered& operator=(const Metered&) = delete;

    easnode_reading next() {
        easnode_reading reading{};
        reading.size = sizeof reading;
        EXPECT_EQ(EASNODE_OK, easnode_meter_read(meter_, &reading));
        return reading;
    }

    /// Units per second between this call and the one before, which is some time ago.
    struct Rates {
        double cycles, instructions, bytes, watts;
        easnode_reading now;
    };
    Rates rates(std::chrono::milliseconds pause = 300ms) {
        std::this_thread::sleep_for(pause);
        const easnode_reading now = next();
        const double seconds = static_cast<double>(now.time_ns - last_.time_ns) / 1e9;
        const auto rate = [&](easnode_figure easnode_reading::*figure) {
            return ((now.*figure).value - (last_.*figure).value) / seconds;
        };
        const Rates result{rate(&easnode_reading::cycles), rate(&easnode_reading::instructions),
                           rate(&easnode_reading::memory), rate(&easnode_reading::energy), now};
        last_ = now;
        return result;
    }

    /// Rates of which that holds. The work goes on while a reading is taken, so a busy machine
    /// bends them: they are taken again before they count as wrong.
    template <typename Holds>
    Rates rates_of_which(Holds holds, std::chrono::milliseconds pause = 300ms) {
        Rates result = rates(pause);
        for (int tries = 1; tries < 25 && !holds(result); ++tries)
            result = rates(pause);
        return result;
    }

    /// What became of a source, as "refused: reason".
    std::string fate(int figure, const std::string& name) {
        const char* const states[] = {"serves", "refused", "not tried", "not wanted"};
        easnode_source source{};
        source.size = sizeof source;
        for (size_t i = 0; easnode_meter_source(meter_, figure, i, &source) == EASNODE_OK; ++i)
            if (name == source.name)
                return states[source.state] + (": " + std::string(source.text));
        return "unknown";
    }

    easnode_meter* get() { return meter_; }

  private:
    easnode_meter* meter_ = nullptr;
    easnode_reading last_{};
};

/// Makes a file say something else, whoever may write it.
inline void put(const std::string& path, const std::string& text) {
    std::filesystem::permissions(path, std::filesystem::perms(0644));
    std::ofstream(path) << text << std::flush;
}

inline easnode_meter_options of_energy(const char* sources) {
    easnode_meter_options options{};
    options.core_sources = options.memory_sources = "none";
    options.energy_sources = sources;
    return options;
}

inline easnode_meter_options of_memory(const char* sources) {
    easnode_meter_options options{};
    options.core_sources = options.energy_sources = "none";
    options.memory_sources = sources;
    return options;
}

}  // namespace eas::test
