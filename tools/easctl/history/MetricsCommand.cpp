// easctl metrics: the history for a monitoring system.
#include "tools/easctl/history/MetricsCommand.h"

#include <memory>

#include "tools/easctl/cli/OutputFile.h"
#include "tools/easctl/history/Metrics.h"
#include "tools/easctl/history/RunSource.h"

namespace easctl {
namespace {

struct MetricsOptions {
    RunOptions runs;
    DriftLimits limits;
    std::string output;
};

void write_metrics(Globals& globals, const MetricsOptions& options) {
    if (globals.json)
        throw Failure(ExitCode::usage, "metrics have a form of their own, not JSON",
                      "easctl --json report has the same sums");
    Metrics metrics(options.limits);
    RunSource source(globals, options.runs);
    for (Run run; source.next(run);)
        metrics.add(run);
    source.finish(globals);
    const std::string text = metrics.text(source.counts());
    if (options.output.empty())
        print(text);
    else
        write_file(options.output, text);
}

}  // namespace

void add_metrics_command(CLI::App& app, Globals& globals) {
    const auto options = std::make_shared<MetricsOptions>();
    CLI::App& command = add_command(
        app, "metrics",
        "sums of all runs for Prometheus, as its node exporter's textfile collector\n"
        "reads them; 1: lines were left out",
        "easctl metrics /var/lib/eas/runs.csv -o /var/lib/prometheus/node-exporter/eas.prom");
    options->runs.add_to(command, "RUNS");
    options->runs.add_cluster_to(command);
    options->limits.add_to(command);
    add_output_option(command, options->output,
                      "written whole or not at all (default: standard output)");
    set_action(command, [options, &globals] { write_metrics(globals, *options); });
}

}  // namespace easctl
