#include "tools/easctl/history/Svg.h"

#include <algorithm>
#include <cmath>

#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

// Places in the picture, in its own units.
constexpr double width = 720, height = 300;
constexpr double left_edge = 64, right_edge = 704, top_edge = 14, bottom_edge = 252;

std::string px(double value) {
    return number(value, 1);
}

std::string attribute(std::string_view name, std::string_view value) {
    return " " + std::string(name) + "=\"" + std::string(value) + '"';
}

std::string tipped(std::string_view tip) {
    return tip.empty() ? "/>" : "><title>" + html(tip) + "</title>";
}

}  // namespace

std::string html(std::string_view text) {
    std::string out;
    for (const char c : printable(text)) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

Scale::Scale(double low, double high) {
    if (!(high > low)) {
        low = std::min(low, 0.0);
        high = std::max(high, low + 1.0);
    }
    const double rough = (high - low) / 5.0;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    double step = 10.0 * power;
    for (const double nice : {5.0, 2.0, 1.0}) {
        if (nice * power >= rough)
            step = nice * power;
    }
    decimals_ = std::max(0, -static_cast<int>(std::floor(std::log10(step) + 1e-9)));
    const double first = std::floor(low / step + 1e-9);
    const double last = std::ceil(high / step - 1e-9);
    low_ = first * step;
    high_ = last * step;
    for (double i = first; i <= last; ++i)
        ticks_.push_back(i * step);
}

double Scale::place(double value) const {
    return (value - low_) / (high_ - low_);
}

std::string Scale::label(double tick) const {
    return number(tick, decimals_);
}

Picture::Picture(std::string title, const Scale& across, const Scale& up, bool ticks_below)
    : title_(std::move(title)), across_(across), up_(up) {
    for (const double tick : up_.ticks()) {
        const double top = top_of(tick);
        body_ += "<line" + attribute("class", tick == 0.0 ? "zero" : "grid") +
                 attribute("x1", px(left_edge)) + attribute("x2", px(right_edge)) +
                 attribute("y1", px(top)) + attribute("y2", px(top)) + "/>";
        words(left_edge - 8, top + 4, up_.label(tick), "end");
    }
    for (const double tick : across_.ticks()) {
        if (ticks_below)
            below(tick, across_.label(tick));
    }
}

double Picture::left_of(double x) const {
    return left_edge + across_.place(x) * (right_edge - left_edge);
}

double Picture::top_of(double y) const {
    return bottom_edge - up_.place(y) * (bottom_edge - top_edge);
}

void Picture::words(double left, double top, std::string_view text, std::string_view anchor,
                    std::string_view more) {
    body_ += "<text" + attribute("x", px(left)) + attribute("y", px(top)) +
             attribute("text-anchor", anchor) + std::string(more) + '>' + html(text) + "</text>";
}

void Picture::point(double x, double y, double radius, std::string_view style,
                    std::string_view tip) {
    body_ += "<circle" + attribute("class", style) + attribute("cx", px(left_of(x))) +
             attribute("cy", px(top_of(y))) + attribute("r", px(radius)) + tipped(tip) +
             (tip.empty() ? "" : "</circle>");
}

void Picture::bar(double from, double to, double base, double top, std::string_view style,
                  std::string_view tip) {
    const double upper = std::min(top_of(base), top_of(top));
    const double lower = std::max(top_of(base), top_of(top));
    body_ += "<rect" + attribute("class", style) + attribute("x", px(left_of(from))) +
             attribute("y", px(upper)) + attribute("width", px(left_of(to) - left_of(from))) +
             attribute("height", px(lower - upper)) + tipped(tip) + (tip.empty() ? "" : "</rect>");
}

void Picture::line(double x1, double y1, double x2, double y2, std::string_view style) {
    body_ += "<line" + attribute("class", style) + attribute("x1", px(left_of(x1))) +
             attribute("y1", px(top_of(y1))) + attribute("x2", px(left_of(x2))) +
             attribute("y2", px(top_of(y2))) + "/>";
}

void Picture::text(double x, double y, double beside, std::string_view text) {
    words(left_of(x) + beside, top_of(y) + 4, text, "start");
}

void Picture::below(double x, std::string_view text) {
    words(left_of(x), bottom_edge + 18, text, "middle");
}

void Picture::axis_names(std::string_view across, std::string_view up) {
    words((left_edge + right_edge) / 2, height - 8, across, "middle");
    const double middle = (top_edge + bottom_edge) / 2;
    words(14, middle, up, "middle", attribute("transform", "rotate(-90 14 " + px(middle) + ")"));
}

std::string Picture::svg() const {
    return "<svg" + attribute("viewBox", "0 0 " + px(width) + " " + px(height)) +
           attribute("role", "img") + attribute("aria-label", html(title_)) + ">" + body_ +
           "</svg>\n";
}

}  // namespace easctl
