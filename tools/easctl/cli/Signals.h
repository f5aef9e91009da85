// The signals that ask a long command to end, held back so that it ends in order.
#pragma once

#include <csignal>

namespace easctl {

/// Holds SIGINT, SIGTERM, SIGHUP and SIGQUIT back, unless they are ignored, in this thread and
/// those that it starts, for the length of a block.
class HeldSignals {
  public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    /// Sleeps; returns early with the number of a held signal that arrived, else 0.
    [[nodiscard]] int sleep(double seconds) const;
    /// As sleep, but throws Failure (interrupted) when a signal arrived.
    void sleep_or_throw(double seconds) const;
    /// Wakes `sleep` on this signal, too.
    void hold(int signal_number);
    /// Waits until a descriptor can be read. False when a held signal arrived before that; it stays
    /// pending, and acts when it is no longer held.
    [[nodiscard]] bool wait_for_input(int fd) const;
    /// What was held before: the mask for a child.
    [[nodiscard]] const sigset_t& before() const { return before_; }

  private:
    sigset_t held_{};
    sigset_t before_{};
};

/// Seconds of the monotonic clock.
double monotonic_seconds();

}  // namespace easctl
