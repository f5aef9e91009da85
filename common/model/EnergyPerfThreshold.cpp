#include "common/model/EnergyPerfThreshold.h"

#include <array>
#include <climits>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "base/CancelState.h"
#include "base/DebugFile.h"
#include "base/FatalAssertion.h"
#include "base/Numbers.h"
#include "base/UniqueFile.h"
#include "common/model/Interpolation.h"
#include "common/model/TextHelpers.h"
#include "common/model/ThresholdLines.h"

using eas::LineVerdict;
using namespace eas::threshold_keyword;
using namespace std::string_view_literals;  // "..."sv compares without a call to bind at load

namespace {

/// What a line holds besides comments and surrounding white space; empty for none. Cuts in place.
const char* content_of(char* line) {
    line[std::strcspn(line, "#")] = '\0';
    return ltrunc(line);
}

}  // namespace

/// A section of the file, as far as it is read.
struct EnergyPerfThreshold::Section {
    enum class State { unopened, open, done, refused };

    void open_at(int line) {
        state = State::open;
        opened = line;
    }
    void add(const char* text, int line) {
        lines.emplace_back(text);
        numbers.push_back(line);
    }
    [[nodiscard]] bool is(State wanted) const { return state == wanted; }

    State state = State::unopened;
    int opened = 0;  // the line
    std::vector<std::string> lines;
    std::vector<int> numbers;  // of the lines
};

/// Tells what becomes of a section's lines, if there is a listener.
class EnergyPerfThreshold::Report {
  public:
    Report() = default;
    Report(eas::ThresholdListener* listener, const Section& section)
        : listener_(listener), section_(&section) {}

    void line(std::size_t i, LineVerdict verdict, std::string_view text = {}, int frequency = 0,
              int other = 0) const {
        if (listener_ != nullptr)
            listener_->hear({verdict, section_->numbers[i], text, frequency, other});
    }
    /// Of two lines only one counts.
    void superseded(std::size_t i, LineVerdict verdict, std::size_t by) const {
        if (listener_ != nullptr)
            line(i, verdict, {}, 0, section_->numbers[by]);
    }
    void section(LineVerdict verdict) const {
        if (listener_ != nullptr)
            listener_->hear({verdict, section_->opened, {}, 0, 0});
    }

  private:
    eas::ThresholdListener* listener_ = nullptr;
    const Section* section_ = nullptr;
};

/// One pass over a file.
struct EnergyPerfThreshold::Reading {
    /// The next line with content, trimmed; null at the end. Valid until the next call.
    const char* next(std::FILE* stream) {
        while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), stream) != nullptr) {
            line = next_line;
            next_line += std::strchr(buffer.data(), '\n') != nullptr ? 1 : 0;  // else it goes on
            const char* text = content_of(buffer.data());
            if (*text != '\0')
                return text;
        }
        return nullptr;
    }
    void tell(LineVerdict verdict, int at, std::string_view text = {}) const {
        if (listener != nullptr)
            listener->hear({verdict, at, text, 0, 0});
    }
    [[nodiscard]] bool done() const {
        return energy.is(Section::State::done) && time.is(Section::State::done);
    }

    eas::ThresholdListener* listener;
    std::array<char, 1024> buffer{};
    int line = 0;
    int next_line = 1;
    Section energy{};
    Section time{};
};

EnergyPerfThreshold::EnergyPerfThreshold(CoEfficients* coefficients, const char* file)
    : coeffs(coefficients), all_comment_out(true) {
    readThresholds(file);
}

EnergyPerfThreshold& EnergyPerfThreshold::operator=(EnergyPerfThreshold& other) {
    std::map<int, double> copy(other.thresval);
    thresval.swap(copy);
    valid = other.valid;
    perf_threshold = other.perf_threshold;
    coeffs = other.coeffs;
    return *this;
}

void EnergyPerfThreshold::readThresholds(const char* file) {
    const eas::UniqueFile stream = eas::open_for_reading(file);
    if (stream != nullptr)
        parseThresholds(stream.get());
}

void EnergyPerfThreshold::parseThresholds(std::FILE* stream, eas::ThresholdListener* listener) try {
    Reading reading{listener};
    while (const char* text = reading.next(stream)) {
        all_comment_out = false;
        if (take_line(text, reading) != 0)
            break;
        if (reading.done()) {
            valid = true;
            displayThresholds();
            if (listener != nullptr && reading.next(stream) != nullptr)
                reading.tell(LineVerdict::rest_unread, reading.line);
            return;
        }
    }
    if (std::ferror(stream) != 0)
        return;  // a folder can be opened, but not read
    default_missing(reading);
    valid = valid || reading.done();
} catch (const std::exception&) {
    // No memory for it: not valid, unless only the debug output was left to do.
}

/// Not 0 when the line closes a time section that is wrong.
int EnergyPerfThreshold::take_line(const char* text, Reading& reading) {
    using State = Section::State;
    Section& energy = reading.energy;
    Section& time = reading.time;
    if (energy.is(State::open)) {
        if (!eas::matches_keyword(text, EEND)) {
            energy.add(text, reading.line);
        } else {
            take_limit(energy.lines, Report(reading.listener, energy));
            energy.state = State::done;
        }
    } else if (time.is(State::open)) {
        if (!eas::matches_keyword(text, TEND)) {
            time.add(text, reading.line);
        } else {
            const int wrong = take_demands(time.lines, Report(reading.listener, time));
            time.state = wrong != 0 ? State::refused : State::done;
            return wrong;
        }
    } else if (energy.is(State::unopened) && eas::matches_keyword(text, EBEG)) {
        energy.open_at(reading.line);
    } else if (time.is(State::unopened) && eas::matches_keyword(text, TBEG)) {
        time.open_at(reading.line);
    } else {
        reading.tell(LineVerdict::outside, reading.line, text);
    }
    return 0;
}

void EnergyPerfThreshold::default_missing(Reading& reading) {
    using State = Section::State;
    for (const auto& [section, end] :
         {std::pair(&reading.energy, EEND), std::pair(&reading.time, TEND)}) {
        if (section->is(State::open))
            reading.tell(LineVerdict::never_closed, section->opened, end);
    }
    if (reading.energy.is(State::unopened)) {
        perf_threshold = 0.0;
        reading.energy.state = State::done;
    }
    if (!reading.time.is(State::unopened))
        return;
    if (coeffs != nullptr && coeffs->getDefaultFrequency() == coeffs->getNominalFrequency()) {
        thresval.clear();  // no frequency is above the default one: none demands a change
        reading.time.state = State::done;
    } else {
        reading.tell(LineVerdict::no_time_section, 0);
    }
}

int EnergyPerfThreshold::get_perf_threshold(const std::vector<std::string>& lines) {
    return take_limit(lines, Report());
}

int EnergyPerfThreshold::take_limit(const std::vector<std::string>& lines, const Report& report) {
    if (!lines.empty())
        perf_threshold = 0.0;
    std::optional<std::size_t> counts;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (counts) {
            report.superseded(i, LineVerdict::limit_given_before, *counts);
            continue;
        }
        const eas::LimitLine read = eas::read_limit(lines[i]);
        report.line(i, read.verdict, read.text);
        if (read.verdict == LineVerdict::limit) {
            perf_threshold = read.percent;
            counts = i;
        }
    }
    if (!counts)
        report.section(LineVerdict::no_limit);
    return lines.empty() ? 1 : 0;
}

int EnergyPerfThreshold::get_time_threshhold(const std::vector<std::string>& lines) {
    return take_demands(lines, Report());
}

int EnergyPerfThreshold::take_demands(const std::vector<std::string>& lines, const Report& report) {
    if (lines.empty() || coeffs == nullptr) {
        report.section(LineVerdict::empty);
        return 1;
    }
    if (!eas::is_time_header(lines[0])) {
        report.line(0, LineVerdict::no_header, lines[0]);
        return 1;
    }
    const eas::KnownFrequencies known(*coeffs);
    std::map<int, double> values{{known.default_frequency(), 0.0}};
    std::map<int, std::size_t> given;  // the line of a frequency
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const eas::DemandLine read = eas::read_demand(*this, lines[i], known);
        report.line(i, read.verdict, read.text, read.frequency);
        if (read.verdict != LineVerdict::demand)
            continue;
        values[read.frequency] = read.percent;
        const auto [entry, is_new] = given.emplace(read.frequency, i);
        if (!is_new)
            report.superseded(std::exchange(entry->second, i), LineVerdict::demand_given_again, i);
    }
    if (linearData(values) == 0)
        return 0;
    if (given.empty())
        report.section(LineVerdict::no_demand);
    else
        report.line(given.rbegin()->second, LineVerdict::climbs);
    return 1;
}

int EnergyPerfThreshold::linearData(std::map<int, double>& values) {
    if (coeffs == nullptr || values.size() > coeffs->frequencyArray().size())
        return -1;
    const int default_frequency = coeffs->getDefaultFrequency();
    const int default_index = coeffs->getCoeffFreqIndex(default_frequency);
    if (default_index < 0)
        return -3;  // without the marker row there is nothing to start from
    if (values.size() < 2) {
        if (coeffs->getNominalFrequency() != default_frequency)
            return -2;
        thresval.clear();
        return 0;
    }
    eas::Interpolation interpolation(values, coeffs->frequencyArray(), default_index);
    return interpolation.fill_gaps() ? convert(values) : -3;
}

int EnergyPerfThreshold::convert(const std::map<int, double>& values) {
    thresval.clear();
    for (const auto& [frequency, percent] : values) {
        // Also refuses what is no number: percentages beyond the range of a double interpolate to
        // it.
        if (!(percent <= 0.0)) {
            thresval.clear();
            return -3;
        }
        thresval.emplace_hint(thresval.end(), frequency, percent / 100.0);
    }
    return 0;
}

int EnergyPerfThreshold::get_freq(const std::string& str, int& freq) const {
    const eas::KnownFrequencies known(coeffs != nullptr ? *coeffs : CoEfficients());
    return known.read(*this, str, freq) == LineVerdict::demand ? 0 : 1;
}

int EnergyPerfThreshold::get_freq_by_unit(const std::string& str, const std::string& unit) const {
    const std::string_view text = str;
    const std::size_t pos = text.find(unit);
    if (pos == std::string_view::npos)
        return 0;
    if (text.substr(pos) != unit)
        return -1;
    const std::string number(text.substr(0, pos));
    // Cut, not rounded: "4.1GHz" gives 4099999, which no set has; sites write "4100MHz".
    if (unit == "GHz"sv && isfloat(number.c_str()) != 0) {
        return eas::truncate_to_int(1e6 * eas::to_double(number.c_str()));
    }
    if (isint(number.c_str()) == 0)
        return -1;
    const int value = eas::to_int(number.c_str());
    if (unit != "MHz"sv)
        return value;
    const long kilohertz = static_cast<long>(value) * 1000;
    return kilohertz >= INT_MIN && kilohertz <= INT_MAX ? static_cast<int>(kilohertz) : INT_MIN;
}

int EnergyPerfThreshold::get_timevar(const std::string& str, double& tv) const {
    tv = 0.0;
    if (isfloat(str.c_str()) == 0)
        return 1;
    const double value = eas::to_double(str.c_str());
    if (!(value < 0.0))
        return 1;
    tv = value;
    return 0;
}

void EnergyPerfThreshold::displayThresholds() const {
    if (!eas::debug_output_wanted())
        return;
    constexpr std::size_t message_size = 1024;
    const eas::DeferCancellation until_closed;
    const eas::UniqueFd file = eas::open_debug_file("/tmp/.threshold_output");
    eas::require_or_abort(file.get() > 0, "the threshold debug file opens");
    std::string text;
    eas::append_formatted(text, message_size, "This threshold is %s.\n",
                          valid ? "valid" : "not valid");
    eas::write_debug_text(file.get(), text);
    if (!valid)
        return;
    text.clear();
    eas::append_formatted(text, message_size, "The performance threshold: %f\n", perf_threshold);
    eas::write_debug_text(file.get(), text);
    for (const auto& [frequency, fraction] : thresval) {
        text.clear();
        eas::append_formatted(text, message_size, "Frequency = %d, threshold value defined = %f\n",
                              frequency, fraction);
        eas::write_debug_text(file.get(), text);
    }
}
