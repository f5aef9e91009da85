// A CSV file with a header line, read row by row in constant memory, however large it is.
//
// Fields are separated by commas; one that begins with a double quote ends at the next lone one and
// may hold commas. Lines that are empty or begin with "#" are skipped; CR LF ends a line too. For
// one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"

namespace easctl {

/// The lines of a file, "-" being standard input.
class LineReader {
  public:
    /// Longer lines are not handed out whole.
    static constexpr std::size_t max_line = std::size_t{64} * 1024;

    /// Throws Failure when the file cannot be opened.
    explicit LineReader(std::string path);
    /// Reads what is open already; `name` stands for the path in messages.
    LineReader(std::string name, eas::UniqueFd fd);

    /// The first line that is neither empty nor a comment, cut to max_line; nothing is taken away.
    /// Before the first call of next only.
    [[nodiscard]] std::string_view peek();

    /// The next line without its end, changeable and valid until the next call; false at the end of
    /// the file. Throws Failure when the file cannot be read, or a line seems to have no end.
    bool next(char*& text, std::size_t& length);

    /// Whether the latest line was longer than max_line: its rest is skipped.
    [[nodiscard]] bool too_long() const { return too_long_; }
    [[nodiscard]] std::uint64_t line() const { return line_; }
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::uint64_t bytes_read() const { return bytes_read_; }
    /// Of the whole file; 0 when nobody knows, as for a pipe.
    [[nodiscard]] std::uint64_t bytes_total() const { return bytes_total_; }

  private:
    bool fill();
    void skip_line();

    std::string path_;
    eas::UniqueFd fd_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // of what is not handed out yet
    std::size_t end_ = 0;
    bool at_end_ = false;
    bool too_long_ = false;
    std::uint64_t line_ = 0;
    std::uint64_t bytes_read_ = 0;
    std::uint64_t bytes_total_ = 0;
};

class CsvFile {
  public:
    enum class Step { row, bad_row, end };

    /// Reads the header. Throws Failure when the file cannot be read or has no header.
    explicit CsvFile(std::string path) : CsvFile(LineReader(std::move(path))) {}
    explicit CsvFile(LineReader lines);

    /// The place of a column, compared without case. Throws Failure when the header names it twice.
    [[nodiscard]] std::optional<std::size_t> column(std::string_view name) const;

    /// After `row`, fields() holds as many fields as the header; after `bad_row`, problem() says
    /// what is wrong with it.
    Step next();
    [[nodiscard]] const std::vector<std::string_view>& fields() const { return fields_; }
    [[nodiscard]] const std::string& problem() const { return problem_; }

    /// "FILE:LINE" of the latest row.
    [[nodiscard]] std::string where() const;
    [[nodiscard]] const LineReader& lines() const { return lines_; }

  private:
    bool next_line(char*& text, std::size_t& length);
    bool split(char* text, std::size_t length);

    LineReader lines_;
    std::vector<std::string> columns_;
    std::vector<std::string_view> fields_;
    std::string problem_;
};

/// A finite number, blanks around it allowed; nothing for any other text. In every locale with a
/// decimal point.
std::optional<double> parse_number(std::string_view text);

}  // namespace easctl
