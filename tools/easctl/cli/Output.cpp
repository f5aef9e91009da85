#include "tools/easctl/cli/Output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "tools/easctl/cli/Errors.h"

namespace easctl {
namespace {

const char* sequence_of(Style style) {
    switch (style) {
        case Style::plain:
            return "";
        case Style::bold:
            return "\033[1m";
        case Style::good:
            return "\033[32m";
        case Style::warning:
            return "\033[33m";
        case Style::bad:
            return "\033[31m";
        case Style::faint:
            return "\033[2m";
    }
    return "";
}

/// How many places a text takes: its characters, not its bytes.
std::size_t width_of(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string csv_cell(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"')
            quoted += '"';
        quoted += c;
    }
    return quoted + '"';
}

std::string aligned(const Cell& cell, Align align, std::size_t width, bool last, bool colored) {
    const std::string text = printable(cell.text);
    const std::string blanks(width - std::min(width, width_of(text)), ' ');
    const std::string painted = paint(text, cell.style, colored);
    if (align == Align::right)
        return blanks + painted;
    return last ? painted : painted + blanks;
}

}  // namespace

bool color_wanted(ColorMode mode, std::FILE* stream) {
    if (mode != ColorMode::automatic)
        return mode == ColorMode::always;
    const char* refused = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return ::isatty(::fileno(stream)) == 1 && (refused == nullptr || *refused == '\0') &&
           (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
}

std::string paint(std::string_view text, Style style, bool colored) {
    if (!colored || style == Style::plain)
        return std::string(text);
    return sequence_of(style) + std::string(text) + "\033[0m";
}

std::string printable(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            shown += "\\x";
            shown += digits[byte >> 4U];
            shown += digits[byte & 15U];
        } else {
            shown += c;
        }
    }
    return shown;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : ", ") + part;
    return text;
}

std::string number(double value, int decimals) {
    if (!std::isfinite(value))
        return "-";
    std::array<char, 400> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value,
                                   std::chars_format::fixed, decimals)
                         .ptr;
    std::string shown(text.data(), end);
    if (shown[0] == '-' && shown.find_first_not_of("-0.") == std::string::npos)
        shown.erase(0, 1);  // -0.0
    return shown;
}

std::string exact(double value) {
    std::array<char, 40> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
    return {text.data(), end};
}

std::string ghz(int khz) {
    int decimals = 6;
    for (int rest = khz; decimals > 2 && rest % 10 == 0; rest /= 10)
        --decimals;
    return number(khz / 1e6, decimals) + " GHz";
}

std::vector<std::size_t> Table::widths() const {
    std::vector<std::size_t> widths;
    for (const Column& column : columns_)
        widths.push_back(width_of(column.title));
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], width_of(printable(row[i].text)));
    }
    return widths;
}

std::string Table::text(bool colored, std::size_t indent) const {
    const std::vector<std::size_t> width = widths();
    std::string out;
    const auto add_line = [&](const auto& cell_of) {
        std::string line(indent, ' ');
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            if (i > 0)
                line += "  ";
            line +=
                aligned(cell_of(i), columns_[i].align, width[i], i + 1 == columns_.size(), colored);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out += line + '\n';
    };
    add_line([&](std::size_t i) { return Cell(columns_[i].title, Style::bold); });
    for (const auto& row : rows_)
        add_line([&](std::size_t i) { return i < row.size() ? row[i] : Cell(""); });
    return out;
}

std::string Table::csv() const {
    std::string out;
    for (std::size_t i = 0; i < columns_.size(); ++i)
        out += (i > 0 ? "," : "") + csv_cell(columns_[i].title);
    out += '\n';
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < columns_.size(); ++i)
            out += (i > 0 ? "," : "") + (i < row.size() ? csv_cell(row[i].text) : std::string());
        out += '\n';
    }
    return out;
}

std::vector<std::vector<std::string>> Table::cells() const {
    std::vector<std::vector<std::string>> all(1);
    for (const Column& column : columns_)
        all[0].push_back(column.title);
    for (const auto& row : rows_) {
        all.emplace_back(columns_.size());
        for (std::size_t i = 0; i < columns_.size() && i < row.size(); ++i)
            all.back()[i] = row[i].text;
    }
    return all;
}

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        flush_output();
}

void flush_output() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw Failure(ExitCode::found,
                      std::string("standard output cannot be written: ") + std::strerror(errno));
}

}  // namespace easctl
