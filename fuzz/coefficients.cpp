// Coefficient files, and the predictions that follow from what one holds.
#include <cstring>
#include <vector>

#include "common/model/CoEffsFromFile.h"
#include "common/model/EnergyTag.h"
#include "fuzz/Fuzz.h"

using eas::fuzz::check;

namespace {

using Factors = std::vector<double>;

bool same_bits(const Factors& a, const Factors& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

/// The copy of the rows in a set, and six factors for each row of it.
CoEfficients check_copy(const CoEffsFromFile& file) {
    CoEfficients set;
    const std::size_t rows = file.getFrequencies().size();
    check(file.VecToCoEfficients(&set) == static_cast<int>(rows), "all rows are copied");
    check(set.frequencyArray() == file.getFrequencies(), "the frequencies are the file's");
    const struct {
        const Factors& in_file;
        const Factors& in_set;
    } factors[] = {{file.getFactorA(), set.CoEfficientA_Array()},
                   {file.getFactorB(), set.CoEfficientB_Array()},
                   {file.getFactorC(), set.CoEfficientC_Array()},
                   {file.getFactorD(), set.CoEfficientD_Array()},
                   {file.getFactorE(), set.CoEfficientE_Array()},
                   {file.getFactorF(), set.CoEfficientF_Array()}};
    for (const auto& factor : factors) {
        check(factor.in_file.size() == rows, "every row has six factors");
        check(same_bits(factor.in_file, factor.in_set), "the factors are the file's");
    }
    return set;
}

/// Six texts with commas between them stand behind the colon, whatever they are.
bool is_row(std::string_view line) {
    line = line.substr(0, line.find('\0'));
    line = line.substr(0, line.find('#'));
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return false;
    int values = 0;
    char before = ',';
    for (const char c : line.substr(colon + 1)) {
        values += before == ',' && c != ',';
        before = c;
    }
    return values == 6;
}

std::size_t rows_in(std::string_view text) {
    constexpr std::size_t line_buffer = 1024;
    std::size_t rows = 0;
    bool good = true;
    eas::fuzz::for_each_line(text, line_buffer, [&](std::string_view line) {
        if (line[0] == '#')
            return;
        good = good && is_row(line);
        rows += good;
    });
    return rows;
}

void check_predictions(const CoEfficients& set) {
    const EnergyTag tag(&set, "c", "u", "1.0", "t", 268.4, 2400, 40.0, 1.5, 0.9);
    const std::size_t rows = tag.frequency_array().size();
    check(rows == 0 || tag.frequency_array() == set.frequencyArray(), "all frequencies or none");
    check(tag.predict_power_array().size() == rows &&
              tag.energy_saving_pct_array().size() == rows &&
              tag.predict_elapse_time_array().size() == rows &&
              tag.perf_degrad_pct_array().size() == rows,
          "every prediction is whole");
    for (const int seconds : tag.predict_elapse_time_array())
        check(seconds >= 1, "a job takes at least a second");
    const std::string report = tag.format_etag(0) + tag.format_etag(1);
    check(rows > 0 || report.empty(), "nothing predicted, nothing reported");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text = eas::fuzz::text_of(data, size);
    CoEffsFromFile file;
    const int result = file.ReadCoefficients(eas::fuzz::stream_of(text).get());
    check(result == 0 || result == BAD_COEFFICIENTS_FILE || result == BAD_COEFFICIENTS_FORMAT,
          "the result is a documented one");
    check(file.energy_err_reason == result, "the reason is kept");

    check(file.getFrequencies().size() == rows_in(text), "a row for every line up to a bad one");
    check_predictions(check_copy(file));
    return 0;
}
