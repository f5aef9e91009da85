// Pictures, drawn by gnuplot.
#pragma once

#include <string>

namespace easctl {

/// Runs gnuplot commands with `file` as their output; its ending decides what is drawn: .svg or
/// .png. Throws Failure when gnuplot is missing or refuses.
void draw(const std::string& file, const std::string& commands);

/// A text in gnuplot's quotes.
std::string plot_text(const std::string& text);

}  // namespace easctl
