#include "tools/easctl/history/Metrics.h"

#include <algorithm>
#include <cmath>

#include "tools/easctl/cli/Output.h"

namespace easctl {
namespace {

constexpr std::size_t most_clusters = 16;

/// A word of those, "none" for an empty one, "other" for what is none of them.
std::string known(const std::string& word, std::initializer_list<const char*> words) {
    if (word.empty())
        return "none";
    return std::find(words.begin(), words.end(), word) != words.end() ? word : "other";
}

std::string label(const char* name, const std::string& value) {
    std::string text = std::string(name) + "=\"";
    for (const char c : value) {
        if (c == '\n')
            text += "\\n";
        else
            text.append(c == '"' || c == '\\' ? "\\" : "").append(1, c);
    }
    return text + '"';
}

void begin_family(std::string& text, const std::string& name, const char* type, const char* help) {
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string& text, const std::string& name, const std::string& labels, double value) {
    text += name + (labels.empty() ? "" : "{" + labels + "}") + " " + exact(value) + "\n";
}

void gauge(std::string& text, const std::string& name, const char* help,
           const std::optional<double>& value) {
    if (!value)
        return;
    begin_family(text, name, "gauge", help);
    sample(text, name, "", *value);
}

}  // namespace

void Metrics::Misses::add(double miss, double runs) {
    const double size = std::fabs(miss);
    for (std::size_t i = 0; i < limits.size(); ++i)
        at_most[i] += size <= limits[i] ? runs : 0.0;
    count += runs;
    sum += runs * size;
}

std::string Metrics::cluster_label(const std::string& cluster) {
    const std::string name = cluster.empty() ? "none" : cluster;
    if (clusters_.count(name) == 0 && clusters_.size() >= most_clusters)
        return "other";
    clusters_[name] = true;
    return name;
}

void Metrics::add(const Run& run) {
    drift_.add(run);
    if (const auto when = run.when())
        last_ = std::max(last_.value_or(*when), *when);
    Sums& sums = sums_[{cluster_label(run.cluster),
                        known(run.policy, {"minimize_energy", "minimize_time"})}];
    sums.runs[known(run.outcome, {"measured", "used", "observed", "failed"})] += run.runs();
    if (!run.is_measured())
        return;
    sums.energy_j += run.runs() * *run.joules;
    sums.time_s += run.runs() * *run.seconds;
    if (run.can_be_compared())
        sums.compared.add(run, *run.default_joules, *run.default_seconds);
    if (run.is_used() && run.can_be_checked()) {
        sums.checked.add(run, *run.predicted_joules, *run.predicted_seconds);
        sums.misses.add(*run.joules / *run.predicted_joules - 1.0, run.runs());
    }
}

void Metrics::add_families(std::string& text) const {
    begin_family(text, "eas_runs_total", "counter", "Runs of jobs that have a record.");
    for (const auto& [key, sums] : sums_) {
        for (const auto& [outcome, runs] : sums.runs)
            sample(text, "eas_runs_total",
                   label("cluster", key.first) + "," + label("outcome", outcome) + "," +
                       label("policy", key.second),
                   runs);
    }
    using Figure = double (*)(const Sums&);
    struct Family {
        const char* name;
        const char* help;
        Figure of;
    };
    constexpr std::array families{
        Family{"eas_energy_joules_total", "Energy that was measured.",
               [](const Sums& s) { return s.energy_j; }},
        Family{"eas_run_seconds_total", "Run time that was measured.",
               [](const Sums& s) { return s.time_s; }},
        Family{"eas_compared_runs_total",
               "Measured runs at a selected frequency whose tags predict the default one.",
               [](const Sums& s) { return s.compared.runs; }},
        Family{"eas_compared_energy_joules_total", "Energy of the compared runs, measured.",
               [](const Sums& s) { return s.compared.measured_j; }},
        Family{"eas_compared_seconds_total", "Run time of the compared runs, measured.",
               [](const Sums& s) { return s.compared.measured_s; }},
        Family{"eas_default_energy_joules_total",
               "Energy of the compared runs, as predicted for the default frequency.",
               [](const Sums& s) { return s.compared.predicted_j; }},
        Family{"eas_default_seconds_total",
               "Run time of the compared runs, as predicted for the default frequency.",
               [](const Sums& s) { return s.compared.predicted_s; }},
        Family{"eas_checked_runs_total",
               "Measured runs whose tags predict the frequency at which they ran.",
               [](const Sums& s) { return s.checked.runs; }},
        Family{"eas_checked_energy_joules_total", "Energy of the checked runs, measured.",
               [](const Sums& s) { return s.checked.measured_j; }},
        Family{"eas_checked_seconds_total", "Run time of the checked runs, measured.",
               [](const Sums& s) { return s.checked.measured_s; }},
        Family{"eas_predicted_energy_joules_total", "Energy of the checked runs, as predicted.",
               [](const Sums& s) { return s.checked.predicted_j; }},
        Family{"eas_predicted_seconds_total", "Run time of the checked runs, as predicted.",
               [](const Sums& s) { return s.checked.predicted_s; }},
    };
    for (const Family& family : families) {
        begin_family(text, family.name, "counter", family.help);
        for (const auto& [key, sums] : sums_)
            sample(text, family.name,
                   label("cluster", key.first) + "," + label("policy", key.second),
                   family.of(sums));
    }
}

void Metrics::add_misses(std::string& text) const {
    const std::string name = "eas_energy_miss_ratio";
    begin_family(text, name, "histogram",
                 "By what part of the prediction the energy of checked runs missed it.");
    for (const auto& [key, sums] : sums_) {
        const std::string labels = label("cluster", key.first) + "," + label("policy", key.second);
        const Misses& misses = sums.misses;
        for (std::size_t i = 0; i < Misses::limits.size(); ++i)
            sample(text, name + "_bucket", labels + "," + label("le", exact(Misses::limits[i])),
                   misses.at_most[i]);
        sample(text, name + "_bucket", labels + "," + label("le", "+Inf"), misses.count);
        sample(text, name + "_sum", labels, misses.sum);
        sample(text, name + "_count", labels, misses.count);
    }
}

void Metrics::add_drift(std::string& text) const {
    begin_family(text, "eas_tags", "gauge", "Tags that ran, by whether they still fit their runs.");
    const auto counts = drift_.counts();
    constexpr std::array states{"too_few_runs", "fits", "stale"};
    for (std::size_t i = 0; i < states.size(); ++i)
        sample(text, "eas_tags", label("state", states[i]), static_cast<double>(counts[i]));
    const DriftVerdict model = drift_.model();
    gauge(text, "eas_model_drifts",
          "Whether tags of different users miss in the same direction (1), or not (0).",
          model.state == DriftState::too_few
              ? std::nullopt
              : std::optional(model.state == DriftState::stale ? 1.0 : 0.0));
    gauge(text, "eas_model_energy_miss_ratio",
          "By what part of the prediction the tags miss the energy, median.", model.energy_miss);
    gauge(text, "eas_model_time_miss_ratio",
          "By what part of the prediction the tags miss the run time, median.", model.time_miss);
}

std::string Metrics::text(const RunCounts& counts) const {
    std::string text;
    add_families(text);
    add_misses(text);
    add_drift(text);
    begin_family(text, "eas_jobs_without_record_total", "counter",
                 "Jobs of accounting that have no record.");
    sample(text, "eas_jobs_without_record_total", "", static_cast<double>(counts.without_record));
    gauge(text, "eas_unreadable_lines", "Lines of the history that cannot be read.",
          static_cast<double>(counts.unreadable));
    gauge(text, "eas_last_run_end_timestamp_seconds", "When the latest run of the history ended.",
          last_);
    return text;
}

}  // namespace easctl
