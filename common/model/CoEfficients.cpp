#include "common/model/CoEfficients.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "base/Numbers.h"

CoEfficients& CoEfficients::operator=(CoEfficients& other) {
    CoEfficients copy(other);
    return *this = std::move(copy);
}

void CoEfficients::setArrayData(int freq, double a, double b, double c, double d, double e,
                                double f) {
    eas::make_room_for_row(frequencies, factor_a, factor_b, factor_c, factor_d, factor_e, factor_f);
    frequencies.push_back(freq);
    factor_a.push_back(a);
    factor_b.push_back(b);
    factor_c.push_back(c);
    factor_d.push_back(d);
    factor_e.push_back(e);
    factor_f.push_back(f);
}

void CoEfficients::add_row(const eas::ModelRow& row) {
    const auto [a, b, c, d, e, f] = row.factors;
    setArrayData(row.frequency, a, b, c, d, e, f);
}

int CoEfficients::getDefaultFrequency() const {
    for (std::size_t i = frequencies.size(); i-- > 0;) {
        if (row(i).marks_default())
            return frequencies[i];
    }
    return 0;
}

int CoEfficients::getNominalFrequency() const {
    return frequencies.empty() ? 0 : frequencies.back();
}

int CoEfficients::getCoeffFreqIndex(int freq) const {
    const auto found = std::find(frequencies.begin(), frequencies.end(), freq);
    return found == frequencies.end() ? -1 : static_cast<int>(found - frequencies.begin());
}

void CoEfficients::displayCoEfficients() const {
    const eas::CLocaleScope c_locale;
    for (const auto& [frequency, factors] : rows()) {
        const auto [a, b, c, d, e, f] = factors;
        if (frequency != -1)
            std::printf("frequency = %d, A = %f, B = %f, C = %f, D = %f, E = %f, F = %f\n",
                        frequency, a, b, c, d, e, f);
    }
}
