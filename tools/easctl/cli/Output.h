// What easctl prints: tables for people, CSV and JSON for programs. Numbers have a decimal point in
// every locale; texts from a database or a file cannot steer the terminal.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace easctl {

class Json;  // of cli/Json.h

enum class ColorMode { automatic, always, never };
/// Whether to colour what goes to `stream`: by default on a terminal that can, without NO_COLOR.
bool color_wanted(ColorMode mode, std::FILE* stream = stdout);

enum class Style { plain, bold, good, warning, bad, faint };
/// `text` between the control sequences of a style; as it is unless `colored`.
std::string paint(std::string_view text, Style style, bool colored);

/// `text` with control characters shown as \xNN.
std::string printable(std::string_view text);

/// "a, b, c".
std::string joined(const std::vector<std::string>& parts);

/// Fixed-point number; "-" for what is not finite.
std::string number(double value, int decimals);
/// The shortest text that reads back as exactly this number.
std::string exact(double value);
/// A frequency: 2300000 gives "2.30 GHz"; with more digits where these do not tell all.
std::string ghz(int khz);

enum class Align { left, right };

struct Column {
    std::string title;
    Align align = Align::left;
};

struct Cell {
    Cell(std::string cell_text, Style cell_style = Style::plain)  // a text is a cell
        : text(std::move(cell_text)), style(cell_style) {}
    Cell(const char* cell_text, Style cell_style = Style::plain)
        : text(cell_text), style(cell_style) {}
    std::string text;
    Style style;
};

class Table {
  public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    /// Missing cells are empty.
    void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
    [[nodiscard]] bool empty() const { return rows_.empty(); }

    /// Aligned columns under their titles, each line behind `indent` blanks.
    [[nodiscard]] std::string text(bool colored, std::size_t indent = 0) const;
    /// Comma-separated, a cell in quotes where it must be.
    [[nodiscard]] std::string csv() const;
    /// The titles, then the rows; each as long as the titles.
    [[nodiscard]] std::vector<std::vector<std::string>> cells() const;

  private:
    [[nodiscard]] std::vector<std::size_t> widths() const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

/// Writes to standard output. Throws Failure when it cannot be written (a full disk).
void print(std::string_view text);
/// Ends the output; throws Failure when some of it could not be written.
void flush_output();

}  // namespace easctl
