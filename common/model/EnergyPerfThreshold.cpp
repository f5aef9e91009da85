#include "common/model/EnergyPerfThreshold.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <exception>
#include <utility>

#include "base/CancelState.h"
#include "base/DebugFile.h"
#include "base/FatalAssertion.h"
#include "base/Numbers.h"
#include "base/UniqueFile.h"
#include "common/model/TextHelpers.h"

using namespace eas::threshold_keyword;
using namespace std::string_view_literals;  // "..."sv compares without a call to bind at load

namespace {

constexpr std::string_view blanks = " \t";

bool matches(std::string_view line, std::string_view keyword) {
    return eas::compare_section(line, keyword) == 0;
}

/// What a line holds besides comments and surrounding white space; empty for none. Cuts in place.
const char* content_of(char* line) {
    line[std::strcspn(line, "#")] = '\0';
    return ltrunc(line);
}

/// `value` of "key = value" lines whose key is TKEY; negative for any other line.
double limit_in(const std::string& line) {
    constexpr double none = -1.0;
    const std::string_view text = line;
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == text.size())
        return none;
    std::string_view key = text.substr(0, equals);
    key = key.substr(0, key.find_first_of(blanks));
    if (!matches(key, TKEY))
        return none;
    const std::size_t blank = text.find_last_of(blanks);
    const bool blank_in_value = blank != std::string_view::npos && blank > equals;
    const char* value = line.c_str() + (blank_in_value ? blank : equals) + 1;
    return isfloat(value) != 0 ? eas::to_double(value) : none;
}

/// The frequency written as "2.6GHz", "2600MHz", "2600000KHz" or, in GHz, "2.6"; false when it is
/// none of these. `freq` then holds what the last attempt gave.
bool read_frequency(const EnergyPerfThreshold& reader, const std::string& str, int& freq) {
    freq = reader.get_freq_by_unit(str, "GHz");
    if (freq < 1)
        freq = reader.get_freq_by_unit(str, "MHz");
    if (freq < 1)
        freq = reader.get_freq_by_unit(str, "KHz");
    if (freq >= 1)
        return true;
    if (freq != 0 || isfloat(str.c_str()) == 0)
        return false;
    freq = eas::truncate_to_int(1e6 * eas::to_double(str.c_str()));
    return true;
}

/// Fills the gaps of a time section. Position k is the k-th frequency from the default one up, as
/// the set lists them.
class Interpolation {
  public:
    Interpolation(std::map<int, double>& values, const std::vector<int>& all, int default_index)
        : values_(values), frequencies_(all.begin() + default_index, all.end()) {}

    /// False when a gap has no end point to start from.
    bool fill_gaps() {
        std::vector<bool> known;
        known.reserve(frequencies_.size());
        for (const int f : frequencies_)
            known.push_back(values_.count(f) > 0);

        bool in_gap = false;
        std::size_t lo = 0;  // the last known position before the gap
        for (std::size_t k = 0; k < frequencies_.size(); ++k) {
            if (!known[k] && !in_gap) {
                if (k == 0)
                    return false;
                in_gap = true;
                lo = k - 1;
            } else if (known[k] && in_gap) {
                in_gap = false;
                fill_between(lo, k);
            }
        }
        return !in_gap || extend_from(lo);
    }

  private:
    double& at(std::size_t position) { return values_[frequencies_[position]]; }

    /// Writes the positions after `start`, up to `last`.
    void write_line(std::size_t start, std::size_t last, double base) {
        for (std::size_t t = 1; t <= last - start; ++t) {
            at(start + t) = static_cast<double>(t) * slope_ + base;
        }
    }

    void fill_between(std::size_t lo, std::size_t hi) {
        const double v_lo = at(lo);
        slope_ = (at(hi) - v_lo) / static_cast<double>(hi - lo);
        write_line(lo, hi, v_lo);
        base_ = at(hi);
    }

    bool extend_from(std::size_t lo) {
        // A slope that climbs goes on from the end of the gap it was found in, wherever `lo` is:
        // sites rely on the thresholds that this gives.
        if (slope_ < 1e-7) {
            if (lo == 0)
                return false;
            slope_ = at(lo) - at(lo - 1);
            base_ = at(lo);
        }
        write_line(lo, frequencies_.size() - 1, base_);
        return true;
    }

    std::map<int, double>& values_;
    std::vector<int> frequencies_;
    double slope_ = 0.0;  // percent per position
    double base_ = 0.0;   // percent
};

}  // namespace

struct EnergyPerfThreshold::Sections {
    enum class State { unopened, open, done };

    bool done() const { return energy == State::done && time == State::done; }

    State energy = State::unopened;
    State time = State::unopened;
    std::vector<std::string> energy_lines;
    std::vector<std::string> time_lines;
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

void EnergyPerfThreshold::parseThresholds(std::FILE* stream) try {
    Sections sections;
    std::array<char, 1024> buffer;
    while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), stream) != nullptr) {
        const char* text = content_of(buffer.data());
        if (*text == '\0')
            continue;
        all_comment_out = false;
        if (take_line(text, sections) != 0)
            break;
        if (sections.done()) {
            valid = true;
            displayThresholds();
            return;
        }
    }
    if (std::ferror(stream) != 0)
        return;  // a folder can be opened, but not read
    default_missing(sections);
    if (sections.done())
        valid = true;
} catch (const std::exception&) {
    // No memory for it: not valid, unless only the debug output was left to do.
}

/// Not 0 when the line closes a time section that is wrong.
int EnergyPerfThreshold::take_line(const std::string& line, Sections& sections) {
    using State = Sections::State;
    if (sections.energy == State::open) {
        if (matches(line, EEND)) {
            get_perf_threshold(sections.energy_lines);
            sections.energy = State::done;
        } else {
            sections.energy_lines.push_back(line);
        }
    } else if (sections.time == State::open) {
        if (matches(line, TEND)) {
            if (get_time_threshhold(sections.time_lines) != 0)
                return 1;
            sections.time = State::done;
        } else {
            sections.time_lines.push_back(line);
        }
    } else if (sections.energy == State::unopened && matches(line, EBEG)) {
        sections.energy = State::open;
    } else if (sections.time == State::unopened && matches(line, TBEG)) {
        sections.time = State::open;
    }
    return 0;
}

void EnergyPerfThreshold::default_missing(Sections& sections) {
    using State = Sections::State;
    if (sections.energy == State::unopened) {
        perf_threshold = 0.0;
        sections.energy = State::done;
    }
    // Nothing lies above the default frequency: nothing to demand.
    if (sections.time == State::unopened && coeffs != nullptr &&
        coeffs->getDefaultFrequency() == coeffs->getNominalFrequency()) {
        thresval.clear();
        sections.time = State::done;
    }
}

int EnergyPerfThreshold::get_perf_threshold(const std::vector<std::string>& lines) {
    if (lines.empty())
        return 1;
    perf_threshold = 0.0;
    for (const std::string& line : lines) {
        const double limit = limit_in(line);
        if (limit < 0.0)
            continue;
        perf_threshold = limit;
        break;
    }
    return 0;
}

int EnergyPerfThreshold::get_time_threshhold(const std::vector<std::string>& lines) {
    if (lines.empty() || coeffs == nullptr)
        return 1;
    const std::string_view header = lines[0];
    if (header.find_first_of(blanks) == std::string_view::npos || !matches(header, FREQ_TVAR))
        return 1;
    const int default_frequency = coeffs->getDefaultFrequency();
    std::vector<int> sorted = coeffs->frequencyArray();
    std::sort(sorted.begin(), sorted.end());

    std::map<int, double> values;
    values[default_frequency] = 0.0;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const std::string_view line = lines[i];
        const std::size_t first = line.find_first_of(blanks);
        if (first == std::string_view::npos)
            continue;
        int freq = 0;
        double tv = 0.0;
        if (read_frequency(*this, std::string(line.substr(0, first)), freq) &&
            freq > default_frequency && std::binary_search(sorted.begin(), sorted.end(), freq) &&
            get_timevar(std::string(line.substr(line.find_last_of(blanks) + 1)), tv) == 0) {
            values[freq] = tv;
        }
    }
    return linearData(values) != 0 ? 1 : 0;
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
    Interpolation interpolation(values, coeffs->frequencyArray(), default_index);
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
    const bool accepted = read_frequency(*this, str, freq) && coeffs != nullptr &&
                          coeffs->getCoeffFreqIndex(freq) >= 0 &&
                          freq > coeffs->getDefaultFrequency();
    return accepted ? 0 : 1;
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
