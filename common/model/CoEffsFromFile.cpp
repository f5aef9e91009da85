#include "common/model/CoEffsFromFile.h"

#include <array>
#include <cstring>

#include "base/Numbers.h"
#include "base/UniqueFile.h"

namespace {

/// Splits at commas in place; runs of them count as one. Returns how many values there are, of
/// which the first six are converted.
std::size_t split_values(char* text, std::array<double, 6>& values) {
    std::size_t count = 0;
    char* rest = nullptr;
    for (char* token = ::strtok_r(text, ",", &rest); token != nullptr;
         token = ::strtok_r(nullptr, ",", &rest)) {
        if (count < values.size())
            values[count] = eas::to_double(token);
        ++count;
    }
    return count;
}

}  // namespace

int CoEffsFromFile::ReadCoefficientsFromFile(const char* path) {
    const eas::UniqueFile file = eas::open_for_reading(path);
    if (file == nullptr)
        return energy_err_reason = BAD_COEFFICIENTS_FILE;
    return ReadCoefficients(file.get());
}

int CoEffsFromFile::ReadCoefficients(std::FILE* stream) {
    std::array<char, 1024> line;
    int result = 0;
    while (result == 0 && std::fgets(line.data(), static_cast<int>(line.size()), stream)) {
        if (line[0] != '#')
            result = read_row(line.data());
    }
    // A folder can be opened, but not read.
    if (result == 0 && std::ferror(stream) != 0)
        result = BAD_COEFFICIENTS_FILE;
    if (result != 0)
        energy_err_reason = result;
    return result;
}

int CoEffsFromFile::read_row(char* line) {
    line[std::strcspn(line, "#")] = '\0';
    char* colon = line + std::strcspn(line, ":");
    if (*colon == '\0')
        return BAD_COEFFICIENTS_FILE;
    *colon = '\0';
    std::array<double, 6> f{};
    if (split_values(colon + 1, f) != f.size())
        return BAD_COEFFICIENTS_FORMAT;
    rows.add_row({eas::to_int(line), f});
    return 0;
}

int CoEffsFromFile::VecToCoEfficients(CoEfficients* target) const {
    if (target == nullptr)
        return -1;
    for (const eas::ModelRow& row : rows.rows())
        target->add_row(row);
    return rows.total_frequencies();
}

void CoEffsFromFile::print_file_coefficients() const {
    const eas::CLocaleScope c_locale;
    int i = 0;
    for (const auto& [frequency, factors] : rows.rows()) {
        const auto [a, b, c, d, e, f] = factors;
        // The missing commas are part of the listing's format.
        std::printf(
            "[%d] %10d: A = %10.4f, B = %10.4f C = %10.4f, D = %10.4f E = %10.4f F = %10.4f\n", i++,
            frequency, a, b, c, d, e, f);
    }
}
