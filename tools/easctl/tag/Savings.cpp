#include "tools/easctl/tag/Savings.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <utility>

#include "common/model/JobMetrics.h"
#include "interface/FrequencyPolicy.h"
#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

/// Whether the sum of no file that fits a disk overflows, whichever frequency is selected.
bool can_be_summed(const EnergyTag& tag, double runs) {
    constexpr double most_joules = 1e280;  // of a job
    const std::vector<double>& watts = tag.predict_power_array();
    return std::all_of(watts.begin(), watts.end(), [&](double power) {
        return std::abs(runs * power * INT_MAX) <= most_joules;  // and is a number
    });
}

}  // namespace

EnergyPerfThreshold swept_thresholds(CoEfficients& coeffs, double percent) {
    EnergyPerfThreshold thresholds(&coeffs, "");  // without a file
    thresholds.get_perf_threshold({"THRESHOLD_RUNTIME_VAR=" + number(percent, 9)});
    std::map<int, double> demanded{{coeffs.getDefaultFrequency(), 0.0}};
    if (coeffs.getNominalFrequency() != coeffs.getDefaultFrequency())
        demanded[coeffs.getNominalFrequency()] = -percent;
    thresholds.linearData(demanded);
    return thresholds;
}

double change_pct(double after, double before) {
    return before > 0.0 ? 100.0 * (after / before - 1.0) : 0.0;
}

std::vector<std::string> policies_of(const std::vector<Scenario>& scenarios) {
    std::vector<std::string> names;
    for (const Scenario& scenario : scenarios) {
        if (std::find(names.begin(), names.end(), scenario.policy) == names.end())
            names.push_back(scenario.policy);
    }
    return names;
}

std::vector<std::size_t> scenarios_of(const std::vector<Scenario>& scenarios,
                                      const std::string& policy) {
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < scenarios.size(); ++i) {
        if (scenarios[i].policy == policy)
            places.push_back(i);
    }
    return places;
}

void ClassSums::add(const ClassSums& other) {
    jobs += other.jobs;
    runs += other.runs;
    measured.energy_j += other.measured.energy_j;
    measured.time_s += other.measured.time_s;
    by_scenario.resize(other.by_scenario.size());
    changed_runs.resize(other.changed_runs.size());
    for (std::size_t i = 0; i < by_scenario.size(); ++i) {
        by_scenario[i].energy_j += other.by_scenario[i].energy_j;
        by_scenario[i].time_s += other.by_scenario[i].time_s;
        changed_runs[i] += other.changed_runs[i];
    }
}

Savings::Savings(const CoEfficients& coeffs, std::vector<Scenario> scenarios)
    : coeffs_(coeffs), scenarios_(std::move(scenarios)) {}

ClassSums& Savings::sums_of(std::string_view job_class) {
    auto found = classes_.find(job_class);
    if (found == classes_.end()) {
        const bool full = classes_.size() >= most_classes;
        other_jobs_ += full ? 1 : 0;
        const std::string name(full ? other_classes : job_class);
        found = classes_.try_emplace(name).first;
        found->second.by_scenario.resize(scenarios_.size());
        found->second.changed_runs.resize(scenarios_.size());
    }
    return found->second;
}

bool Savings::add(const JobRow& job) {
    const auto [cycles, instructions, bytes] = job.counters;
    tag_.clear();
    tag_.genEnergyTag(&coeffs_, "", "", "", "", job.power_w, job.elapsed_s,
                      GBS(bytes, job.elapsed_s), GIPS(instructions, job.elapsed_s),
                      CPI(cycles, instructions));
    const auto runs = static_cast<double>(job.count);
    if (tag_.available() == 0 || !can_be_summed(tag_, runs))
        return false;

    ClassSums& sums = sums_of(job.job_class);
    ++sums.jobs;
    sums.runs += job.count;
    sums.measured.energy_j += runs * job.power_w * job.elapsed_s;
    sums.measured.time_s += runs * job.elapsed_s;
    for (std::size_t i = 0; i < scenarios_.size(); ++i) {
        const auto& [policy, limit, thresholds] = scenarios_[i];
        const int frequency = eas::select_frequency(tag_, policy, thresholds).frequency;
        const eas::TagRow row = tag_.row_of(frequency).value();  // every selection is a row
        sums.by_scenario[i].energy_j += runs * row.energy();
        sums.by_scenario[i].time_s += runs * row.seconds;
        if (frequency != tag_.default_frequency())
            sums.changed_runs[i] += job.count;
    }
    return true;
}

ClassSums Savings::total() const {
    ClassSums total;
    total.by_scenario.resize(scenarios_.size());
    total.changed_runs.resize(scenarios_.size());
    for (const auto& [name, sums] : classes_)
        total.add(sums);
    return total;
}

}  // namespace easctl
