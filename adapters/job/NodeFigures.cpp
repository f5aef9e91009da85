#include "adapters/job/NodeFigures.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace eas::job {
namespace {

/// No value unless every node has one.
std::optional<double> sum_of(const std::vector<NodeReport>& reports, RunFigure figure) {
    double sum = 0;
    for (const NodeReport& one : reports) {
        if (!(one.figures.*figure))
            return std::nullopt;
        sum += *(one.figures.*figure);
    }
    return reports.empty() ? std::nullopt : std::optional(sum);
}

std::optional<double> mean_of(const std::vector<NodeReport>& reports, RunFigure figure) {
    const std::optional<double> sum = sum_of(reports, figure);
    return sum ? std::optional(*sum / static_cast<double>(reports.size())) : std::nullopt;
}

/// (highest - lowest) / mean of the nodes' joules.
double spread_of(const std::vector<NodeReport>& reports, double mean) {
    const auto less = [](const NodeReport& a, const NodeReport& b) {
        return *a.figures.joules < *b.figures.joules;
    };
    const auto [low, high] = std::minmax_element(reports.begin(), reports.end(), less);
    return mean > 0 ? (*high->figures.joules - *low->figures.joules) / mean : 0;
}

std::string difference_of(const std::vector<NodeReport>& reports) {
    const NodeReport& first = reports.front();
    for (const NodeReport& one : reports) {
        if (one.figures.type != first.figures.type)
            return "the job's nodes are of different types";
        if (one.figures.meter != first.figures.meter)
            return "the meters differ: " + first.figures.meter + " on " + first.node + ", " +
                   one.figures.meter + " on " + one.node;
    }
    return "";
}

void add_joules(RunRecord& run, const std::vector<NodeReport>& reports) {
    run.meter = reports.front().figures.meter;
    run.joules = sum_of(reports, &RunRecord::joules);
    if (run.joules && reports.size() > 1)
        run.spread = spread_of(reports, *run.joules / static_cast<double>(reports.size()));
}

std::string trouble_of(const std::vector<NodeReport>& reports, const JobPlace& place) {
    for (const NodeReport& one : reports) {
        const std::string where = place.has_others() ? one.node + ": " : "";
        if (one.figures.outcome == "failed")
            return where + one.figures.reason;
    }
    if (reports.size() < place.nodes)
        return "no figures of " + std::to_string(place.nodes - reports.size()) + " of " +
               std::to_string(place.nodes) + " nodes";
    return "";
}

}  // namespace

NodeReport report_of(const JobRecord& record) {
    NodeReport report{record.place.node, record.figures.value_or(RunRecord{})};
    report.figures.type = record.place.type;
    const std::string& why = record.disturbed;
    if (!why.empty() || !record.figures) {
        report.figures.outcome = "failed";
        report.figures.reason = why.empty() ? "the node's meter was not read" : why;
    }
    return report;
}

WholeRun combine(const JobRecord& record, const std::vector<NodeReport>& reports) {
    WholeRun whole{record.plan.value_or(RunRecord{}), trouble_of(reports, record.place),
                   difference_of(reports)};
    RunRecord& run = whole.run;
    run.tag = record.request.tag;
    run.nodes = record.place.nodes;
    run.seconds = mean_of(reports, &RunRecord::seconds);
    run.cycles = mean_of(reports, &RunRecord::cycles);
    run.instructions = mean_of(reports, &RunRecord::instructions);
    run.bytes = mean_of(reports, &RunRecord::bytes);
    if (whole.unlike.empty())
        add_joules(run, reports);
    for (const NodeReport& one : reports)
        if (run.reason.empty() && one.figures.outcome.empty())
            run.reason = one.figures.reason;
    return whole;
}

std::string objection(const RunRecord& run, int spread) {
    if (!run.seconds || *run.seconds < 1)
        return "the job ran for less than a second";
    if (!run.reason.empty())
        return run.reason;
    if (!run.joules || !run.cycles || !run.instructions || !run.bytes)
        return "a figure is missing";
    if (*run.joules <= 0 || *run.cycles <= 0 || *run.instructions <= 0 || *run.bytes <= 0)
        return "a counter of the node stands still";
    if (run.spread && *run.spread * 100 > spread) {
        std::array<char, 80> text;
        std::snprintf(text.data(), text.size(), "the nodes' joules differ by %.0f %%",
                      *run.spread * 100);
        return text.data();
    }
    return "";
}

std::string describe(const RunRecord& run) {
    if (!run.seconds)
        return "";
    std::array<char, 96> text;
    if (run.joules)
        std::snprintf(text.data(), text.size(), "%.1f J in %.2f s, mean %.1f W", *run.joules,
                      *run.seconds, *run.joules / *run.seconds / run.nodes.value_or(1));
    else
        std::snprintf(text.data(), text.size(), "%.2f s, no energy meter", *run.seconds);
    return text.data();
}

}  // namespace eas::job
