#include "tools/easctl/node/NodeSampler.h"

namespace easctl {
namespace {

constexpr double longest_update_seconds = 2;
constexpr double poll_seconds = 0.001;

unsigned long meter() {
    enrusage reading{};
    getearusage(RUSAGE_SELF, &reading);
    return reading.energy1_input;
}

}  // namespace

NodeSampler::NodeSampler(pid_t pid) : pid_(pid), has_energy_(verify_qpx() != 0) {
    hwrusage first{};
    has_hardware_ = gethwrusage(pid, &first) == 0;
    has_counters_ = has_hardware_ && first.tstamp != 0;
}

NodeSampler::~NodeSampler() {
    if (has_hardware_)
        gethwrusage(pid_, nullptr);
}

NodeSample NodeSampler::take() const {
    NodeSample sample;
    sample.microjoules = has_energy_ ? meter() : 0;
    sample.seconds = monotonic_seconds();
    if (has_hardware_)
        gethwrusage(pid_, &sample.hardware);
    return sample;
}

NodeSample NodeSampler::take_at_update(const HeldSignals& signals) const {
    const unsigned long before = meter();
    const double until = monotonic_seconds() + longest_update_seconds;
    while (meter() == before && monotonic_seconds() < until)
        signals.sleep_or_throw(poll_seconds);
    return take();
}

}  // namespace easctl
