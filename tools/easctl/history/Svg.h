// Pictures as SVG inside an HTML page: axes, bars and points, in colours that the page's style
// names
// ("a", "b", "grid", ...), so that they follow light, dark and print.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace easctl {

/// `text` as HTML shows it, whatever it holds; also within quotes of an attribute.
std::string html(std::string_view text);

/// From `low` to `high`, widened to round ticks.
class Scale {
  public:
    Scale(double low, double high);
    [[nodiscard]] const std::vector<double>& ticks() const { return ticks_; }
    /// Between 0 (low) and 1.
    [[nodiscard]] double place(double value) const;
    [[nodiscard]] std::string label(double tick) const;

  private:
    double low_ = 0, high_ = 1;
    int decimals_ = 0;
    std::vector<double> ticks_;
};

class Picture {
  public:
    /// `title` is read out in place of the picture. Both axes have lines and labels; without ticks
    /// along the bottom, labels are written by `below`.
    Picture(std::string title, const Scale& across, const Scale& up, bool ticks_below);

    void point(double x, double y, double radius, std::string_view style, std::string_view tip);
    /// Between two places along the bottom, and two heights.
    void bar(double from, double to, double base, double top, std::string_view style,
             std::string_view tip);
    void line(double x1, double y1, double x2, double y2, std::string_view style);
    /// `beside` the place, to the right of it.
    void text(double x, double y, double beside, std::string_view text);
    void below(double x, std::string_view text);
    void axis_names(std::string_view across, std::string_view up);
    [[nodiscard]] std::string svg() const;

  private:
    [[nodiscard]] double left_of(double x) const;
    [[nodiscard]] double top_of(double y) const;
    void words(double left, double top, std::string_view text, std::string_view anchor,
               std::string_view more = {});

    std::string title_;
    Scale across_;
    Scale up_;
    std::string body_;
};

}  // namespace easctl
