#include "common/model/ThresholdLines.h"

#include <algorithm>

#include "base/Numbers.h"
#include "common/model/EnergyPerfThreshold.h"
#include "common/model/TextHelpers.h"

using namespace eas::threshold_keyword;

namespace eas {
namespace {

constexpr std::string_view blanks = " \t";

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

}  // namespace

bool matches_keyword(std::string_view line, std::string_view keyword) {
    return compare_section(line, keyword) == 0;
}

LimitLine read_limit(const std::string& line) {
    const std::string_view text = line;
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == text.size())
        return {LineVerdict::no_assignment, 0.0, line};
    std::string_view key = text.substr(0, equals);
    key = key.substr(0, key.find_first_of(blanks));
    if (!matches_keyword(key, TKEY))
        return {LineVerdict::unknown_key, 0.0, std::string(key)};
    const std::size_t blank = text.find_last_of(blanks);
    const bool blank_in_value = blank != std::string_view::npos && blank > equals;
    const char* value = line.c_str() + (blank_in_value ? blank : equals) + 1;
    if (isfloat(value) == 0)
        return {LineVerdict::no_number, 0.0, value};
    const double percent = eas::to_double(value);
    return {percent < 0.0 ? LineVerdict::limit_below_zero : LineVerdict::limit, percent, value};
}

KnownFrequencies::KnownFrequencies(const CoEfficients& set)
    : default_(set.getDefaultFrequency()), sorted_(set.frequencyArray()) {
    std::sort(sorted_.begin(), sorted_.end());
}

LineVerdict KnownFrequencies::read(const EnergyPerfThreshold& reader, const std::string& text,
                                   int& freq) const {
    const bool is_read = read_frequency(reader, text, freq);
    if (is_read && std::binary_search(sorted_.begin(), sorted_.end(), freq))
        return freq > default_ ? LineVerdict::demand : LineVerdict::not_above_default;
    return is_read && freq > 0 ? LineVerdict::unknown_frequency : LineVerdict::no_frequency;
}

bool is_time_header(const std::string& line) {
    return line.find_first_of(blanks) != std::string::npos && matches_keyword(line, FREQ_TVAR);
}

DemandLine read_demand(const EnergyPerfThreshold& reader, const std::string& line,
                       const KnownFrequencies& known) {
    const std::size_t first = line.find_first_of(blanks);
    if (first == std::string::npos)
        return {LineVerdict::no_pair, 0, 0.0, line};
    DemandLine demand{LineVerdict::no_pair, 0, 0.0, line.substr(0, first)};
    demand.verdict = known.read(reader, demand.text, demand.frequency);
    if (demand.verdict != LineVerdict::demand)
        return demand;
    demand.text = line.substr(line.find_last_of(blanks) + 1);
    if (reader.get_timevar(demand.text, demand.percent) != 0)
        demand.verdict = isfloat(demand.text.c_str()) != 0 ? LineVerdict::demand_not_below_zero
                                                           : LineVerdict::no_number;
    return demand;
}

}  // namespace eas
