#include "tools/easctl/model/ModelFile.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <sstream>

#include "base/Numbers.h"
#include "common/model/CoEffsFromFile.h"
#include "common/model/JobMetrics.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/cli/InputFile.h"
#include "tools/easctl/cli/Units.h"

namespace easctl {
namespace {

constexpr std::size_t reader_buffer = 1024;

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n\v\f");
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n\v\f") - first + 1);
}

template <typename Number>
std::optional<Number> number_of(const std::string& token) {
    const std::string text = trimmed(token);
    const char* first = text.data() + (!text.empty() && text[0] == '+' ? 1 : 0);
    Number value{};
    const auto [end, error] = std::from_chars(first, text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty())
        return std::nullopt;
    return value;
}

/// One line of the file, checked as strictly as the reader is lenient.
class LineCheck {
  public:
    LineCheck(std::string where, Findings& findings)
        : where_(std::move(where)), findings_(findings) {}

    /// Whether the reader takes the line for a row.
    bool check(const std::string& line) {
        if (line.size() + 1 >= reader_buffer)
            return wrong("the line is longer than 1022 characters, the reader would split it");
        if (line.find('\0') != std::string::npos)
            return wrong("the line holds a zero byte, the reader would end it there");
        if (line[0] == '#')
            return false;
        const std::string text = line.substr(0, line.find('#'));
        const std::size_t colon = text.find(':');
        if (colon == std::string::npos)
            return wrong(trimmed(text).empty() ? "a blank line, at which the reader gives up"
                                               : "no \":\" between frequency and coefficients",
                         "a row is kHz:A,B,C,D,E,F; a comment begins with #");
        check_frequency(text.substr(0, colon));
        check_values(text.substr(colon + 1));
        return true;
    }

  private:
    bool wrong(const std::string& text, const std::string& hint = {}) {
        findings_.error(where_, text, hint);
        return false;
    }

    void check_frequency(const std::string& token) {
        if (!number_of<int>(token))
            wrong("the frequency \"" + trimmed(token) + "\" is not a whole number of kHz");
    }

    void check_values(const std::string& text) {
        std::istringstream tokens(text);
        std::size_t count = 0;
        for (std::string token; std::getline(tokens, token, ',');) {
            if (token.empty())
                continue;  // the reader counts a run of commas as one
            const std::string name(1, static_cast<char>('A' + count++));
            const std::optional<double> value = number_of<double>(token);
            if (count > 6)
                continue;
            if (!value)
                wrong("coefficient " + name + ", \"" + trimmed(token) + "\", is not a number");
            else if (!std::isfinite(*value))
                wrong("coefficient " + name + " is not finite");
        }
        if (count != 6)
            wrong(std::to_string(count) + " coefficients instead of six");
        if (text.find(",,") != std::string::npos)
            findings_.warning(where_, "several commas in a row count as one; a value is missing?");
    }

    std::string where_;
    Findings& findings_;
};

void scan(const std::string& path, const std::string& text, ModelFile& file) {
    std::istringstream in(text);
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (number == 1 && has_byte_order_mark(line)) {
            file.findings.error(place(path, 1), "the file begins with a byte order mark",
                                "save it as plain UTF-8: the library takes the mark for text");
            line.erase(0, byte_order_mark.size());
        }
        if (LineCheck(place(path, number), file.findings).check(line))
            file.lines.push_back(number);
    }
}

class ModelCheck {
  public:
    ModelCheck(const CoEfficients& model, const std::vector<std::string>& places,
               const std::string& whole, Findings& findings)
        : model_(model), places_(places), whole_(whole), findings_(findings) {}

    void run() {
        if (model_.total_frequencies() == 0) {
            findings_.error(whole_, "holds no coefficients");
            return;
        }
        check_frequencies();
        check_default_row();
        for (std::size_t i = 0; i < places_.size(); ++i) {
            const eas::ModelRow row = model_.row(i);
            if (row.frequency >= lowest_khz && !row.marks_default())
                check_predictions(i);
        }
    }

  private:
    void check_frequencies() {
        const std::vector<int>& khz = model_.frequencyArray();
        bool sorted = true;
        for (std::size_t i = 0; i < khz.size(); ++i) {
            if (khz[i] < lowest_khz || khz[i] > highest_khz)
                findings_.error(places_[i], std::to_string(khz[i]) + " is no frequency in kHz",
                                "2.3 GHz is 2300000");
            const auto first = static_cast<std::size_t>(model_.getCoeffFreqIndex(khz[i]));
            if (first != i)
                findings_.error(places_[i], std::to_string(khz[i]) + " kHz stands at " +
                                                places_[first] + " already");
            else if (sorted && i > 0 && khz[i] < khz[i - 1]) {
                sorted = false;
                findings_.warning(places_[i], "the frequencies are not in ascending order",
                                  "the database returns them sorted; other readers take the last "
                                  "row for the nominal frequency");
            }
        }
    }

    void check_default_row() {
        std::vector<std::size_t> markers;
        for (std::size_t i = 0; i < places_.size(); ++i) {
            if (!model_.row(i).marks_default())
                continue;
            markers.push_back(i);
            if (model_.row(i).factors != eas::ModelRow{}.factors)
                findings_.error(places_[i],
                                "all six coefficients are below 0.000001 but not all are 0: the "
                                "library takes the row for the default frequency",
                                "a bad fit looks like this; measure again");
        }
        if (markers.empty())
            findings_.error(whole_, "no row of zeros, so there is no default frequency",
                            "add kHz:0,0,0,0,0,0 for the frequency at which jobs are measured");
        for (std::size_t k = 1; k < markers.size(); ++k)
            findings_.error(places_[markers[k]], "another row of zeros stands at " +
                                                     places_[markers[k - 1]] +
                                                     "; the library takes the last one");
    }

    /// One job is enough to doubt a row.
    void check_predictions(std::size_t i) {
        const int default_khz = model_.getDefaultFrequency();
        const eas::ModelRow row = model_.row(i);
        const double clock = static_cast<double>(default_khz) / row.frequency;
        for (const TypicalJob& job : typical_jobs()) {
            const Change change = predict(row, default_khz, job);
            const Range time{std::min(1.0, clock) / 2, std::max(1.0, clock) * 2};
            if (default_khz > 0 && (!plausible(i, job, "run time", change.time, time) ||
                                    !plausible(i, job, "power", change.power, {0.1, 10.0})))
                return;
        }
    }

    struct Range {
        double low;
        double high;
    };

    bool plausible(std::size_t i, const TypicalJob& job, const char* what, double factor,
                   Range range) {
        if (factor >= range.low && factor <= range.high)
            return true;
        const std::string text = std::string("a ") + job.name + " job is predicted to have " +
                                 number(factor, 2) + " times the " + what + " of " +
                                 ghz(model_.getDefaultFrequency());
        const std::string hint = "expected: " + number(range.low, 2) + " to " +
                                 number(range.high, 2) + "; are digits or signs lost?";
        if (factor > 0.0)
            findings_.warning(places_[i], text, hint);
        else
            findings_.error(places_[i], text, hint);
        return false;
    }

    const CoEfficients& model_;
    const std::vector<std::string>& places_;
    const std::string& whole_;
    Findings& findings_;
};

}  // namespace

std::string file_line(const eas::ModelRow& row) {
    std::string line = std::to_string(row.frequency);
    char separator = ':';
    for (const double factor : row.factors) {
        line += separator + exact(factor);
        separator = ',';
    }
    return line + '\n';
}

const std::vector<TypicalJob>& typical_jobs() {
    static const std::vector<TypicalJob> jobs{{"compute-bound", 300.0, 0.6, 0.1},
                                              {"mixed", 300.0, 1.0, 0.7},
                                              {"memory-bound", 300.0, 3.0, 3.0}};
    return jobs;
}

Change predict(const eas::ModelRow& row, int default_khz, const TypicalJob& job) {
    if (row.frequency == default_khz)
        return {1.0, 1.0};              // what was measured
    constexpr int seconds = 1'000'000;  // so that whole seconds are six digits
    const double lines = eas::lines_per_instruction(job.bytes_per_instruction, 1.0);
    const double time = eas::truncate_to_int(row.seconds(seconds, job.cpi, lines, default_khz));
    return {time / seconds, row.power(job.power, lines) / job.power};
}

void check_model(const CoEfficients& model, const std::vector<std::string>& places,
                 const std::string& whole, Findings& findings) {
    ModelCheck(model, places, whole, findings).run();
}

Findings check_stored_model(const CoEfficients& model, const std::string& cluster) {
    std::vector<std::string> places;
    for (const int khz : model.frequencyArray())
        places.push_back(cluster + ", " + std::to_string(khz) + " kHz");
    Findings findings;
    check_model(model, places, cluster, findings);
    return findings;
}

ModelFile read_model_file(const std::string& path) {
    const std::string text = read_input(path);
    ModelFile file;
    scan(path, text, file);
    CoEffsFromFile reader;
    const bool refused = reader.ReadCoefficients(stream_of(text).get()) != 0;
    if (file.findings.has_errors())
        return file;  // values that are no numbers predict nothing
    reader.VecToCoEfficients(&file.coefficients);
    if (refused || file.lines.size() != file.coefficients.frequencyArray().size())
        throw Failure(ExitCode::input, path + ": the library's reader refuses the file");
    std::vector<std::string> places;
    for (const int line : file.lines)
        places.push_back(place(path, line));
    check_model(file.coefficients, places, path, file.findings);
    return file;
}

}  // namespace easctl
