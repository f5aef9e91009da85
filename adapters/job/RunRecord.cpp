#include "adapters/job/RunRecord.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace eas::job {
namespace {

constexpr std::string_view begin = "eas=1";

using Text = std::string RunRecord::*;

/// A word of the record: one of the two members is set.
struct Word {
    std::string_view key;
    Text text = nullptr;
    RunFigure figure = nullptr;
};

constexpr Word word(std::string_view key, Text text) {
    return {key, text, nullptr};
}
constexpr Word word(std::string_view key, RunFigure figure) {
    return {key, nullptr, figure};
}

// In the order in which they are written.
constexpr std::array known_words{
    word("cluster", &RunRecord::cluster),
    word("job", &RunRecord::job),
    word("user", &RunRecord::user),
    word("start", &RunRecord::start),
    word("outcome", &RunRecord::outcome),
    word("tag", &RunRecord::tag),
    word("policy", &RunRecord::policy),
    word("type", &RunRecord::type),
    word("frequency", &RunRecord::frequency),
    word("default_frequency", &RunRecord::default_frequency),
    word("nodes", &RunRecord::nodes),
    word("seconds", &RunRecord::seconds),
    word("joules", &RunRecord::joules),
    word("spread", &RunRecord::spread),
    word("meter", &RunRecord::meter),
    word("cycles", &RunRecord::cycles),
    word("instructions", &RunRecord::instructions),
    word("bytes", &RunRecord::bytes),
    word("predicted_seconds", &RunRecord::predicted_seconds),
    word("predicted_joules", &RunRecord::predicted_joules),
    word("default_seconds", &RunRecord::default_seconds),
    word("default_joules", &RunRecord::default_joules),
    word("reason", &RunRecord::reason),
};

constexpr bool is_plain(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           std::string_view("_.:+,/@-").find(c) != std::string_view::npos;
}

/// The shortest text that reads back as the same number; whole numbers have no exponent.
std::string number(double value) {
    constexpr double largest_whole = 1e15;
    std::array<char, 32> text;
    char* const end = text.data() + text.size();
    if (value == std::floor(value) && value < largest_whole)
        return {text.data(), std::to_chars(text.data(), end, value, std::chars_format::fixed).ptr};
    return {text.data(), std::to_chars(text.data(), end, value).ptr};
}

std::optional<double> figure(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && std::isfinite(value) && value >= 0 ? std::optional(value) : std::nullopt;
}

/// Where the record stands in a text: first byte and the byte behind; both npos when it has none.
struct Place {
    std::size_t from = std::string_view::npos;
    std::size_t to = std::string_view::npos;
};

Place place_of(std::string_view text) {
    const auto ends_word = [](char c) { return c == ' ' || c == ';' || c == '\n'; };
    for (auto at = text.find(begin); at != std::string_view::npos; at = text.find(begin, at + 1)) {
        const std::size_t behind = at + begin.size();
        if ((at == 0 || ends_word(text[at - 1])) &&
            (behind == text.size() || ends_word(text[behind])))
            return {at, std::min(text.find_first_of(";\n", at), text.size())};
    }
    return {};
}

void read_word(std::string_view text, RunRecord& record) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos)
        return;
    for (const Word& known : known_words) {
        if (known.key != text.substr(0, equals))
            continue;
        const std::string_view value = text.substr(equals + 1);
        if (known.text != nullptr)
            record.*known.text = from_word(value);
        else
            record.*known.figure = figure(value);
    }
}

}  // namespace

std::string to_word(std::string_view text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_plain(c))
            out += c;
        else
            out.append({'%', digits[byte / 16U], digits[byte % 16U]});
    }
    return out;
}

std::string from_word(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned byte = 0;
        const char* const from = text.data() + i + 1;
        if (text[i] == '%' && i + 2 < text.size() &&
            std::from_chars(from, from + 2, byte, 16).ptr == from + 2) {
            out += static_cast<char>(byte);
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string to_text(const RunRecord& record) {
    std::string out(begin);
    const auto add = [&out](std::string_view key, const std::string& value) {
        out.append(" ").append(key).append("=").append(value);
    };
    for (const Word& known : known_words) {
        if (known.text != nullptr && !(record.*known.text).empty())
            add(known.key, to_word(record.*known.text));
        if (known.figure != nullptr && record.*known.figure)
            add(known.key, number(*(record.*known.figure)));
    }
    return out;
}

std::optional<RunRecord> find_record(std::string_view text) {
    const Place place = place_of(text);
    if (place.from == std::string_view::npos)
        return std::nullopt;
    RunRecord record;
    std::string_view rest = text.substr(place.from, place.to - place.from);
    while (!rest.empty()) {
        const std::size_t blank = std::min(rest.find(' '), rest.size());
        read_word(rest.substr(0, blank), record);
        rest.remove_prefix(std::min(blank + 1, rest.size()));
    }
    return record;
}

std::string with_record(std::string_view text, const RunRecord& record) {
    std::string out(text);
    const Place place = place_of(text);
    if (place.from == std::string_view::npos)
        return out.append(out.empty() ? "" : "; ").append(to_text(record));
    return out.replace(place.from, place.to - place.from, to_text(record));
}

}  // namespace eas::job
