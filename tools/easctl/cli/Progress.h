// A progress bar with the remaining time, on standard error, only where that is a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace easctl {

class Progress {
  public:
    /// `total` is the work in any unit; 0: not known, only what is done is shown.
    Progress(std::string label, std::uint64_t total, bool quiet);
    /// Removes the bar.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Draws at most ten times a second. `note` says what is being done now.
    void update(std::uint64_t done, const std::string& note = {});
    /// Takes the bar away, so that something else can be printed; the next update draws it again.
    void hide();

  private:
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] std::string line(std::uint64_t done, const std::string& note) const;

    std::string label_;
    std::uint64_t total_;
    bool visible_;
    bool drawn_ = false;
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_;
};

/// "45 s", "3 min 05 s", "2 h 10 min".
std::string duration(double seconds);

}  // namespace easctl
