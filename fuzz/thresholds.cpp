// Threshold files, each read against clusters whose default frequency stands at the bottom, in the
// middle, at the top, alone and nowhere.
#include <array>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "fuzz/Fuzz.h"

using eas::fuzz::check;

namespace {

constexpr int no_default = -1;

CoEfficients cluster(const std::vector<int>& frequencies, int default_index) {
    CoEfficients set;
    for (std::size_t i = 0; i < frequencies.size(); ++i) {
        const double factor = static_cast<int>(i) == default_index ? 0.0 : 1.0;
        set.setArrayData(frequencies[i], factor, factor, factor, factor, factor, factor);
    }
    return set;
}

const std::vector<CoEfficients>& clusters() {
    static const std::vector<int> five = {1200000, 1600000, 2000000, 2400000, 2800000};
    static const std::vector<CoEfficients> all = {cluster(five, 0), cluster(five, 2),
                                                  cluster(five, 4), cluster({2600000}, 0),
                                                  cluster(five, no_default)};
    return all;
}

/// Every frequency of the set from the default one up, and no other, demands a change of at most 0.
void check_demands(const CoEfficients& set, const std::map<int, double>& demands) {
    const int default_index = set.getCoeffFreqIndex(set.getDefaultFrequency());
    check(default_index >= 0, "an accepted file has a default frequency to start from");
    if (demands.empty()) {
        check(set.getDefaultFrequency() == set.getNominalFrequency(),
              "only a default frequency at the top needs no demands");
        return;
    }
    const std::vector<int>& all = set.frequencyArray();
    auto expected = all.begin() + default_index;
    check(demands.begin()->second == 0.0, "the default frequency demands nothing");
    for (const auto& [frequency, change] : demands) {
        check(expected != all.end() && *expected == frequency, "each frequency in turn");
        check(change <= 0.0, "a demand is a number and at most 0");
        ++expected;
    }
    check(expected == all.end(), "no frequency is left out");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text = eas::fuzz::text_of(data, size);
    for (CoEfficients set : clusters()) {
        EnergyPerfThreshold thresholds(&set, nullptr);
        thresholds.parseThresholds(eas::fuzz::stream_of(text).get());
        check(thresholds.get_def_perf() >= 0.0, "the energy limit is a number and not negative");
        if (thresholds.isValid())
            check_demands(set, thresholds.getThresValue());
        EnergyPerfThreshold kept;
        kept = thresholds;
        check(kept.isValid() == thresholds.isValid() &&
                  kept.getThresValue() == thresholds.getThresValue(),
              "what is kept is what was read");
    }
    return 0;
}
