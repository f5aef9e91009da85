// Pictures, drawn by gnuplot.
#pragma once

#include <array>
#include <string>

#include "tools/easctl/cli/Command.h"

namespace easctl {

/// Adds --plot, which takes the name of a picture: one that ends in .svg or .png.
void add_plot_option(CLI::App& command, std::string& file, const std::string& description);

/// Draws a picture into `file`; does not when that is empty. Empty `commands` mean that there is no
/// value to show. The last step of a command: its result is printed, and stands when the picture
/// cannot be made; that is then said, and the outcome is `found`.
void draw(const std::string& file, const std::string& commands, Globals& globals);

/// Colours that people who cannot tell red from green tell apart, on white and in grey.
inline constexpr std::array plot_colors{"#0072b2", "#d55e00", "#009e73", "#cc79a7",
                                        "#e69f00", "#56b4e9", "#8c510a"};

/// The commands for what the picture is, and below it in small letters what to read from it.
std::string plot_heading(const std::string& title, const std::string& subtitle);

/// A text in gnuplot's quotes.
std::string plot_text(const std::string& text);

}  // namespace easctl
