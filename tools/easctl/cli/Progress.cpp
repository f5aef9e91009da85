#include "tools/easctl/cli/Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

constexpr std::size_t bar_width = 24;
constexpr auto redraw_interval = std::chrono::milliseconds(100);

std::size_t terminal_width() {
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80U;
}

std::string two_digits(long value) {
    return (value < 10 ? "0" : "") + std::to_string(value);
}

}  // namespace

Progress::Progress(std::string label, std::uint64_t total, bool quiet)
    : label_(std::move(label)), total_(total), visible_(!quiet && ::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    hide();
}

void Progress::hide() {
    if (std::exchange(drawn_, false))
        std::fputs("\r\033[K", stderr);
}

void Progress::update(std::uint64_t done, const std::string& note) {
    if (!visible_ || Clock::now() < next_)
        return;
    next_ = Clock::now() + redraw_interval;
    drawn_ = true;
    std::fprintf(stderr, "\r%s\033[K", line(done, note).substr(0, terminal_width() - 1).c_str());
    std::fflush(stderr);
}

std::string Progress::line(std::uint64_t done, const std::string& note) const {
    std::string text = label_ + ' ';
    if (total_ == 0) {
        text += std::to_string(done);
    } else {
        const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
        const auto filled = static_cast<std::size_t>(part * static_cast<double>(bar_width));
        text += '[' + std::string(filled, '#') + std::string(bar_width - filled, '.') + "] ";
        text += number(part * 100, 0) + " %";
        if (done > 0 && done < total_) {
            const double passed =
                std::chrono::duration_cast<std::chrono::duration<double>>(Clock::now() - start_)
                    .count();
            text += ", " + duration(passed / part - passed) + " left";
        }
    }
    return note.empty() ? text : text + "  " + printable(note);
}

std::string duration(double seconds) {
    const long whole = std::lround(std::max(0.0, seconds));
    if (whole < 60)
        return std::to_string(whole) + " s";
    if (whole < 3600)
        return std::to_string(whole / 60) + " min " + two_digits(whole % 60) + " s";
    return std::to_string(whole / 3600) + " h " + two_digits(whole % 3600 / 60) + " min";
}

}  // namespace easctl
