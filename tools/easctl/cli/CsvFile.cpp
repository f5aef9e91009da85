#include "tools/easctl/cli/CsvFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <utility>

#include "base/Numbers.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/InputFile.h"

namespace easctl {

namespace {

constexpr std::uint64_t longest_skipped = std::uint64_t{16} * 1024 * 1024;

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// The field that begins with the double quote at `text`, unquoted in place; `rest` becomes what
/// follows its closing quote. False when there is none.
bool unquote(char* text, char* end, std::string_view& field, char*& rest) {
    char* to = text;
    for (char* from = text + 1; from < end; ++from) {
        if (*from != '"') {
            *to++ = *from;
        } else if (from + 1 < end && from[1] == '"') {
            *to++ = *from++;
        } else {
            field = {text, static_cast<std::size_t>(to - text)};
            rest = from + 1;
            return true;
        }
    }
    return false;
}

}  // namespace

LineReader::LineReader(std::string path) : LineReader(path, open_input(path)) {}

LineReader::LineReader(std::string name, eas::UniqueFd fd)
    : path_(std::move(name)), fd_(std::move(fd)), buffer_(4 * max_line) {
    struct stat status {};
    if (::fstat(fd_.get(), &status) == 0 && S_ISREG(status.st_mode))
        bytes_total_ = static_cast<std::uint64_t>(status.st_size);
}

/// Moves what is left to the front and reads behind it; false at the end of the file.
bool LineReader::fill() {
    if (at_end_)
        return false;
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    ssize_t got = 0;
    do {
        got = ::read(fd_.get(), buffer_.data() + end_, buffer_.size() - end_);
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        throw Failure(ExitCode::input, path_ + ": " + std::strerror(errno));
    at_end_ = got == 0;
    end_ += static_cast<std::size_t>(got);
    bytes_read_ += static_cast<std::uint64_t>(got);
    return !at_end_;
}

std::string_view LineReader::peek() {
    while (end_ - begin_ < max_line && fill()) {
    }
    std::string_view rest(buffer_.data() + begin_, end_ - begin_);
    if (has_byte_order_mark(rest))
        rest.remove_prefix(byte_order_mark.size());
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        if (!line.empty() && line != "\r" && line.front() != '#')
            return trimmed(line.substr(0, max_line));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
    return {};
}

void LineReader::skip_line() {
    for (const std::uint64_t start = bytes_read_; bytes_read_ - start <= longest_skipped;) {
        char* const text = buffer_.data() + begin_;
        const void* const newline = std::memchr(text, '\n', end_ - begin_);
        if (newline != nullptr) {
            begin_ += static_cast<std::size_t>(static_cast<const char*>(newline) - text) + 1;
            return;
        }
        begin_ = end_;
        if (!fill())
            return;
    }
    throw Failure(ExitCode::input, path_ + ":" + std::to_string(line_ + 1) +
                                       ": the line does not end within 16 MiB: no CSV file");
}

bool LineReader::next(char*& text, std::size_t& length) {
    too_long_ = false;
    std::size_t searched = 0;
    for (;;) {
        text = buffer_.data() + begin_;
        const void* const newline = std::memchr(text + searched, '\n', end_ - begin_ - searched);
        if (newline != nullptr) {
            length = static_cast<std::size_t>(static_cast<const char*>(newline) - text);
            begin_ += length + 1;
            too_long_ = length > max_line;
            break;
        }
        searched = end_ - begin_;
        if (searched > max_line) {
            skip_line();
            too_long_ = true;
            break;
        }
        if (!fill()) {
            text = buffer_.data() + begin_;
            length = end_ - begin_;
            begin_ = end_;
            if (length == 0)
                return false;
            break;
        }
    }
    ++line_;
    if (too_long_)
        length = 0;
    if (length > 0 && text[length - 1] == '\r')
        --length;
    return true;
}

CsvFile::CsvFile(LineReader lines) : lines_(std::move(lines)) {
    char* text = nullptr;
    std::size_t length = 0;
    if (!next_line(text, length))
        throw Failure(ExitCode::input,
                      lines_.path() + ": empty: the first line must name the columns");
    if (lines_.too_long() || !split(text, length))
        throw Failure(ExitCode::input, where() + ": this line does not name the columns");
    for (const std::string_view field : fields_)
        columns_.emplace_back(trimmed(field));
}

std::optional<std::size_t> CsvFile::column(std::string_view name) const {
    const auto same_letter = [](char a, char b) { return eas::to_lower(a) == eas::to_lower(b); };
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        const std::string& title = columns_[i];
        if (!std::equal(title.begin(), title.end(), name.begin(), name.end(), same_letter))
            continue;
        if (found)
            throw Failure(ExitCode::input, where() + ": the header names the column \"" +
                                               std::string(name) + "\" twice");
        found = i;
    }
    return found;
}

CsvFile::Step CsvFile::next() {
    char* text = nullptr;
    std::size_t length = 0;
    if (!next_line(text, length))
        return Step::end;
    if (lines_.too_long()) {
        problem_ = "the line is longer than 64 KiB";
        return Step::bad_row;
    }
    if (!split(text, length)) {
        problem_ = "a quoted field does not end, or something follows its closing quote";
        return Step::bad_row;
    }
    if (fields_.size() != columns_.size()) {
        problem_ = std::to_string(fields_.size()) + " fields, but the header names " +
                   std::to_string(columns_.size()) + " columns";
        return Step::bad_row;
    }
    return Step::row;
}

std::string CsvFile::where() const {
    return lines_.path() + ":" + std::to_string(lines_.line());
}

/// The next line that is neither empty nor a comment.
bool CsvFile::next_line(char*& text, std::size_t& length) {
    while (lines_.next(text, length)) {
        if (lines_.line() == 1 && has_byte_order_mark({text, length})) {
            text += byte_order_mark.size();
            length -= byte_order_mark.size();
        }
        if (lines_.too_long() || (length > 0 && *text != '#'))
            return true;
    }
    return false;
}

bool CsvFile::split(char* text, std::size_t length) {
    fields_.clear();
    char* const end = text + length;
    for (;;) {
        char* separator = nullptr;
        if (text < end && *text == '"') {
            std::string_view field;
            if (!unquote(text, end, field, separator) || (separator < end && *separator != ','))
                return false;
            fields_.push_back(field);
        } else {
            separator =
                static_cast<char*>(std::memchr(text, ',', static_cast<std::size_t>(end - text)));
            if (separator == nullptr)
                separator = end;
            fields_.emplace_back(text, static_cast<std::size_t>(separator - text));
        }
        if (separator == end)
            return true;
        text = separator + 1;
    }
}

std::optional<double> parse_number(std::string_view text) {
    text = trimmed(text);
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    double value = 0.0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc{} || result.ptr != end || !std::isfinite(value))
        return {};
    return value;
}

}  // namespace easctl
