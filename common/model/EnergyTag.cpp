#include "common/model/EnergyTag.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <utility>

#include "base/Numbers.h"
#include "common/model/JobMetrics.h"
#include "common/model/TagKey.h"

namespace {

constexpr double smallest_rate = 1e-7;    // of instructions, and of cycles per instruction
constexpr double smallest_energy = 1e-7;  // J
constexpr double smallest_power = 1e-6;   // W

bool has_row(const CoEfficients* coeffs, int fidx) {
    return coeffs != nullptr && fidx >= 0 && fidx < coeffs->total_frequencies();
}

/// predictTime with the set's default frequency at hand: deriving it costs a walk over the set.
int predict_time(const CoEfficients* coeffs, int fidx, int default_frequency, int elapse_time,
                 double gbs, double gips, double cpi) {
    // Written so that NaN is refused.
    if (!has_row(coeffs, fidx) || !(gips > smallest_rate) || !(cpi > smallest_rate))
        return -1;
    const eas::ModelRow row = coeffs->row(static_cast<std::size_t>(fidx));
    return eas::truncate_to_int(
        row.seconds(elapse_time, cpi, eas::lines_per_instruction(gbs, gips), default_frequency));
}

const char* or_empty(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

struct EnergyTag::Job {
    double power_consumed;
    int elapse_time;
    double gbs;
    double gips;
    double cpi;
};

EnergyTag::EnergyTag(const CoEfficients* myCoEff, const char* clustername, const char* user,
                     const char* jid, const char* tagname, double power_consumed, int elapse_time,
                     double gbs, double gips, double cpi) {
    genEnergyTag(myCoEff, clustername, user, jid, tagname, power_consumed, elapse_time, gbs, gips,
                 cpi);
}

EnergyTag& EnergyTag::operator=(const EnergyTag& other) {
    if (this == &other)
        return *this;
    EnergyTag copy(other);
    return *this = std::move(copy);
}

bool EnergyTag::operator==(const EnergyTag& etag) const {
    return this == &etag || eas::TagKey::of(*this) == eas::TagKey::of(etag);
}

void EnergyTag::set_array_data(int frequency, double energy, double saving_pct, int time,
                               double perfd_pct) {
    eas::make_room_for_row(_frequencies, _predict_power, _energy_saving_pct, _predict_elapse_time,
                           _perf_degrad_pct);
    _frequencies.push_back(frequency);
    _predict_power.push_back(energy);
    _energy_saving_pct.push_back(saving_pct);
    _predict_elapse_time.push_back(time);
    _perf_degrad_pct.push_back(perfd_pct);
}

void EnergyTag::clear() noexcept {
    _cluster_name.clear();
    _energy_tag_name.clear();
    _job_step_id.clear();
    _username.clear();
    _default_frequency = 0;
    _create_time = 0;
    _frequencies.clear();
    _predict_power.clear();
    _energy_saving_pct.clear();
    _predict_elapse_time.clear();
    _perf_degrad_pct.clear();
}

int EnergyTag::get_nominal_freq() const {
    int highest = 0;
    for (const int frequency : _frequencies)
        highest = std::max(highest, frequency);
    return highest;
}

int EnergyTag::get_default_energy_index() const {
    std::size_t i = 0;
    while (i < rows().size() && !row(i).is_measured())
        ++i;
    return static_cast<int>(i);
}

std::optional<eas::TagRow> EnergyTag::row_of(int frequency) const {
    const auto found = std::find(_frequencies.begin(), _frequencies.end(), frequency);
    if (found == _frequencies.end())
        return std::nullopt;
    return row(static_cast<std::size_t>(found - _frequencies.begin()));
}

double EnergyTag::predictPower(const CoEfficients* myCoEff, int fidx, double power_consumed,
                               double gbs, double gips) const {
    if (!has_row(myCoEff, fidx) || !(gips > smallest_rate))
        return -1.0;
    return myCoEff->row(static_cast<std::size_t>(fidx))
        .power(power_consumed, eas::lines_per_instruction(gbs, gips));
}

int EnergyTag::predictTime(const CoEfficients* myCoEff, int fidx, int elapse_time, double gbs,
                           double gips, double cpi) const {
    const int f0 = myCoEff != nullptr ? myCoEff->getDefaultFrequency() : 0;
    return predict_time(myCoEff, fidx, f0, elapse_time, gbs, gips, cpi);
}

int EnergyTag::perfDegrade(int est_time, int elapse_time, double& perfdpct) const {
    if (elapse_time < 1 || est_time < 1)
        return -1;
    perfdpct = static_cast<double>(est_time) / static_cast<double>(elapse_time) - 1.0;
    return 0;
}

int EnergyTag::energySaving(double est_energy, double energy_consumed, double& engsavpct) const {
    if (!(energy_consumed > smallest_energy && est_energy > smallest_energy))
        return -1;
    engsavpct = est_energy / energy_consumed - 1.0;
    return 0;
}

void EnergyTag::genEnergyTag(const CoEfficients* myCoEff, const char* clustername, const char* user,
                             const char* jid, const char* tagname, double power_consumed,
                             int elapse_time, double gbs, double gips, double cpi) try {
    int ret = -1;
    if (myCoEff != nullptr && myCoEff->total_frequencies() > 0) {
        _username = or_empty(user);
        _job_step_id = or_empty(jid);
        _energy_tag_name = or_empty(tagname);
        _cluster_name = or_empty(clustername);
        _default_frequency = myCoEff->getDefaultFrequency();
        _create_time = std::time(nullptr);
        ret = predict_all(*myCoEff, Job{power_consumed, elapse_time, gbs, gips, cpi});
    }
    if (ret < 0)
        clear();
} catch (const std::exception&) {
    clear();  // no memory for it: not available, like any other failure
}

/// Appends a row for each frequency of the set; -1 at the first that cannot be predicted.
int EnergyTag::predict_all(const CoEfficients& coeffs, const Job& job) {
    const std::vector<int>& frequencies = coeffs.frequencyArray();
    bool ascending = true;
    for (std::size_t i = 0; i < frequencies.size(); ++i) {
        const int frequency = frequencies[i];
        ascending = ascending && (i == 0 || frequencies[i - 1] < frequency);
        if (frequency == _default_frequency) {
            // The measurement itself. Only a time of zero is refused, not a negative one.
            if (job.elapse_time == 0 || job.power_consumed < smallest_power)
                return -1;
            set_array_data(frequency, job.power_consumed, 0.0, job.elapse_time, 0.0);
            continue;
        }
        // A frequency that occurs twice is predicted from its first row both times.
        const int fidx = ascending ? static_cast<int>(i) : coeffs.getCoeffFreqIndex(frequency);
        if (predict_row(coeffs, fidx, job) < 0)
            return -1;
    }
    return 0;
}

int EnergyTag::predict_row(const CoEfficients& coeffs, int fidx, const Job& job) {
    const double est_power = predictPower(&coeffs, fidx, job.power_consumed, job.gbs, job.gips);
    if (est_power < 0.0)
        return -1;
    const int est_time = predict_time(&coeffs, fidx, _default_frequency, job.elapse_time, job.gbs,
                                      job.gips, job.cpi);
    if (est_time < 0)
        return -1;
    double perf = 0.0;
    double saving = 0.0;
    if (perfDegrade(est_time, job.elapse_time, perf) < 0)
        return -1;
    if (energySaving(static_cast<double>(est_time) * est_power,
                     static_cast<double>(job.elapse_time) * job.power_consumed, saving) < 0) {
        return -1;
    }
    set_array_data(coeffs.frequencyArray()[static_cast<std::size_t>(fidx)], est_power, saving,
                   est_time, perf);
    return 0;
}
