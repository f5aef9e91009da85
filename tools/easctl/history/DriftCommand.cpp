// easctl drift: tags and models that no longer say what runs do, and how good this test is.
#include "tools/easctl/history/DriftCommand.h"

#include <algorithm>
#include <memory>
#include <random>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/history/Drift.h"
#include "tools/easctl/history/RunSource.h"

namespace easctl {
namespace {

constexpr int tags_tried = 2000;
constexpr int runs_tried = 200;  // of each

struct DriftOptions {
    RunOptions runs;
    DriftLimits limits;
    bool all = false;
    double trial_pct = -1;
};

std::string pct(const std::optional<double>& fraction) {
    return fraction ? signed_percent(*fraction, 1) : "";
}

Json as_json(const DriftVerdict& verdict) {
    const auto value = [](const std::optional<double>& miss) {
        return miss ? Json(100.0 * *miss) : Json();
    };
    return {{"state", name_of(verdict.state)},
            {"tested", verdict.count},
            {"energy_miss_pct", value(verdict.energy_miss)},
            {"time_miss_pct", value(verdict.time_miss)}};
}

std::string summary(const Drift& drift) {
    const auto counts = drift.counts();
    const DriftVerdict model = drift.model();
    const auto count = [&](DriftState state) {
        return std::to_string(counts[static_cast<std::size_t>(state)]);
    };
    std::string text = "stale tags: " + count(DriftState::stale) +
                       ", fitting: " + count(DriftState::fits) +
                       ", with too few runs: " + count(DriftState::too_few) + "\n";
    if (model.state == DriftState::too_few)
        return text + "model: too few tags and users to tell\n";
    return text + "model: " + (model.state == DriftState::stale ? "drifts" : "fits") +
           "; its tags miss by " + pct(model.energy_miss) + " % energy and " +
           pct(model.time_miss) + " % time (median of " + std::to_string(model.count) + " tags)\n";
}

void show(Globals& globals, const DriftOptions& options) {
    Drift drift(options.limits);
    RunSource source(globals, options.runs);
    for (Run run; source.next(run);)
        drift.add(run);
    source.finish(globals);
    Table table({{"User"},
                 {"Tag"},
                 {"Runs", Align::right},
                 {"energy miss %", Align::right},
                 {"time miss %", Align::right},
                 {"State"}});
    Json tags = Json::array();
    for (const auto& [key, tag] : drift.tags()) {
        const DriftVerdict verdict = drift.verdict(tag);
        const bool stale = verdict.state == DriftState::stale;
        if (!stale && !options.all)
            continue;
        table.add({key.first, key.second, std::to_string(verdict.count), pct(verdict.energy_miss),
                   pct(verdict.time_miss),
                   Cell(name_of(verdict.state), stale ? Style::bad : Style::plain)});
        Json one{{"user", key.first}, {"tag", key.second}};
        one.add_members(as_json(verdict));
        tags.push_back(std::move(one));
    }
    const auto counts = drift.counts();
    const std::size_t stale = counts[static_cast<std::size_t>(DriftState::stale)];
    if (stale > 0 || drift.model().state == DriftState::stale)
        globals.outcome = ExitCode::found;
    if (globals.json) {
        print_json({{"tags", std::move(tags)},
                    {"stale", stale},
                    {"fit", counts[static_cast<std::size_t>(DriftState::fits)]},
                    {"too_few_runs", counts[static_cast<std::size_t>(DriftState::too_few)]},
                    {"model", as_json(drift.model())}});
        return;
    }
    print((table.empty() ? "" : table.text(globals.colored()) + "\n") + summary(drift));
}

/// Of tags that were right and whose true median miss is `miss` from then on: how many are ever
/// called stale within some runs, and after how many runs half of those were.
struct Trial {
    double miss;
    int found = 0;
    int typical_runs = 0;
};

Trial try_out(double miss, double spread, double limit) {
    std::mt19937_64 lots(1);  // the same answer each time
    std::normal_distribution<double> around(miss, spread);
    Trial trial{miss};
    std::vector<int> after;
    for (int tag = 0; tag < tags_tried; ++tag) {
        TagDrift drift;
        for (std::size_t good = 0; good < TagDrift::window; ++good) {
            const double energy = around(lots) - miss;
            drift.add(energy, around(lots) - miss);
        }
        for (int run = 1; run <= runs_tried; ++run) {
            const double energy = around(lots);
            drift.add(energy, around(lots));
            if (drift.verdict(limit).state == DriftState::stale) {
                after.push_back(run);
                break;
            }
        }
    }
    std::sort(after.begin(), after.end());
    trial.found = static_cast<int>(after.size());
    trial.typical_runs = after.empty() ? 0 : after[after.size() / 2];
    return trial;
}

/// The test on simulated runs, tested again after each.
void try_all(const Globals& globals, const DriftOptions& options) {
    const double spread = options.trial_pct / 100.0;
    Table table({{"true miss %", Align::right},
                 {"called stale %", Align::right},
                 {"typically after runs", Align::right}});
    Json rows = Json::array();
    for (const double part : {0.0, 0.5, 0.8, 0.9, 1.0, 1.2, 1.5, 2.0}) {
        const double limit = options.limits.tag_miss;
        const Trial trial = try_out(part * limit, spread, limit);
        const double found_pct = 100.0 * trial.found / tags_tried;
        table.add({signed_percent(trial.miss, 1), number(found_pct, 2),
                   trial.found > 0 ? std::to_string(trial.typical_runs) : ""});
        rows.push_back({{"true_miss_pct", 100.0 * trial.miss},
                        {"called_stale_pct", found_pct},
                        {"typical_runs", trial.found > 0 ? Json(trial.typical_runs) : Json()}});
    }
    if (globals.json) {
        print_json({{"tags", tags_tried}, {"runs_each", runs_tried}, {"trials", std::move(rows)}});
        return;
    }
    print(std::to_string(tags_tried) + " simulated tags, " + std::to_string(runs_tried) +
          " runs each after 12 good ones, tested after every run;\nruns spread by " +
          number(options.trial_pct, 1) + " %, limit " + number(100.0 * options.limits.tag_miss, 1) +
          " %\n\n" + table.text(globals.colored()));
}

}  // namespace

void add_drift_command(CLI::App& app, Globals& globals) {
    const auto options = std::make_shared<DriftOptions>();
    CLI::App& command =
        add_command(app, "drift", "tags and models that no longer say what runs do; 1: there are",
                    "easctl drift /var/lib/eas/runs.csv\n"
                    "easctl drift --from 30d --all\n"
                    "easctl drift --false-alarms 3");
    options->runs.add_to(command, "RUNS");
    options->runs.add_cluster_to(command);
    options->limits.add_to(command);
    add_flag(command, "--all", options->all, "also the tags that fit, or have too few runs");
    add_option(
        command, "--false-alarms", options->trial_pct,
        "instead: simulate runs that spread by so much around what they should be, and show\n"
        "how often a tag that is right is called stale, and how soon one that is not")
        .check(number_from(0.0, 100.0))
        .type_name("PERCENT");
    set_action(command, [options, &globals] {
        if (options->trial_pct >= 0)
            try_all(globals, *options);
        else
            show(globals, *options);
    });
}

}  // namespace easctl
