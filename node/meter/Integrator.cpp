#include "node/meter/Integrator.h"

#include "base/Numbers.h"

namespace eas::node {
namespace {

// A meter that averages over a second is off by about a second's energy at both ends.
constexpr double short_period = 30;  // s

}  // namespace

bool Integrator::add(Nanoseconds now, double watts) noexcept {
    if (now - last_ > longest_gap)
        return false;
    const double seconds = static_cast<double>(now - last_) / nanoseconds_per_second;
    joules_ += (watts_ + watts) / 2 * seconds;
    watts_ = watts;
    last_ = now;
    ++samples_;
    return true;
}

std::string Integrator::words(const char* what) const {
    const double seconds = static_cast<double>(last_ - first_) / nanoseconds_per_second;
    const double intervals = samples_ > 1 ? static_cast<double>(samples_ - 1) : 1;
    std::string text = what;
    append_formatted(text, EASNODE_TEXT_SIZE, ", integrated from %lu samples every %.1f s",
                     samples_, seconds / intervals);
    if (seconds < short_period)
        text += "; below 30 s it errs by about 1 s of power";
    return text;
}

}  // namespace eas::node
