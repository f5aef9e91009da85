// Pictures, drawn by gnuplot.
#pragma once

#include <string>

#include "tools/easctl/cli/Command.h"

namespace easctl {

/// Adds --plot, which takes the name of a picture: one that ends in .svg or .png.
void add_plot_option(CLI::App& command, std::string& file, const std::string& description);

/// Draws what gnuplot makes of `commands` into `file`, if that is not empty; empty commands
/// draw nothing, which is a picture that cannot be made. The last step of a
/// command: its result is printed, and stands when the picture cannot be made; that is then said,
/// and the outcome is `found`.
void draw(const std::string& file, const std::string& commands, Globals& globals);

/// A text in gnuplot's quotes.
std::string plot_text(const std::string& text);

}  // namespace easctl
