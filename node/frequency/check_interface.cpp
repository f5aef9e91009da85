// The edge of the check whether CPUs run at a frequency.
#include <cmath>
#include <memory>
#include <string>

#include "node/Edge.h"
#include "node/frequency/ClockCheck.h"
#include "node/frequency/Handle.h"

struct easnode_frequency_check {
    eas::node::ClockCheck check;
};

namespace eas::node {
namespace {

int32_t in_khz(double khz) {
    return khz < INT32_MAX ? static_cast<int32_t>(std::lround(khz)) : INT32_MAX;
}

easnode_clock clock_of(ClockCheck& check) {
    std::string text;
    const ClockVerdict verdict = check.end(text);
    easnode_clock clock{};
    clock.verdict = verdict.verdict;
    clock.asked_khz = check.asked();
    clock.mean_khz = in_khz(verdict.mean_khz);
    clock.slowest_khz = in_khz(verdict.slowest_khz);
    clock.slowest_cpu = verdict.slowest_cpu;
    clock.fastest_khz = in_khz(verdict.fastest_khz);
    clock.fastest_cpu = verdict.fastest_cpu;
    clock.busy_seconds = verdict.busy_seconds;
    fill_text(clock.source, check.source());
    fill_text(clock.text, text);
    return clock;
}

}  // namespace
}  // namespace eas::node

using namespace eas::node;

int easnode_frequency_check_begin(const easnode_frequency* frequency, int32_t khz,
                                  easnode_frequency_check** check) {
    if (check == nullptr)
        return EASNODE_BAD_ARGUMENT;
    *check = nullptr;
    return at_the_edge([&] {
        if (frequency == nullptr || khz <= 0)
            return EASNODE_BAD_ARGUMENT;
        *check = new easnode_frequency_check{ClockCheck(frequency->frequency, khz)};
        return EASNODE_OK;
    });
}

int easnode_frequency_check_end(easnode_frequency_check* check, easnode_clock* clock) {
    const std::unique_ptr<easnode_frequency_check> gone(check);
    return at_the_edge([&] {
        if (check == nullptr || (clock != nullptr && !is_record(clock)))
            return EASNODE_BAD_ARGUMENT;
        if (clock != nullptr)
            fill_record(clock, clock_of(check->check));
        return EASNODE_OK;
    });
}
