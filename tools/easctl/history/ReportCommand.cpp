// easctl report: what runs used, what that saved, and how far this can be trusted.
#include "tools/easctl/history/ReportCommand.h"

#include <map>
#include <memory>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/OutputFile.h"
#include "tools/easctl/history/ReportPage.h"
#include "tools/easctl/history/RunSource.h"

namespace easctl {
namespace {

struct ReportOptions {
    RunOptions runs;
    std::string by = "month";
    double price = -1;
    double co2_g = -1;
    std::string currency = "money";
    std::string html;
    std::string title = "What energy-aware scheduling saved";
    Format format = Format::table;
};

const std::map<std::string, GroupBy>& groupings() {
    static const std::map<std::string, GroupBy> all{{"month", GroupBy::month},
                                                    {"user", GroupBy::user},
                                                    {"tag", GroupBy::tag},
                                                    {"class", GroupBy::job_class},
                                                    {"policy", GroupBy::policy}};
    return all;
}

void report(Globals& globals, const ReportOptions& options) {
    Report report{options.by, {}, RunGroups(groupings().at(options.by)), {}, {}, {}};
    if (options.price >= 0)
        report.factors.price = options.price;
    if (options.co2_g >= 0)
        report.factors.co2_g = options.co2_g;
    report.factors.currency = options.currency;
    ReportPictures pictures;
    RunSource source(globals, options.runs);
    for (Run run; source.next(run);) {
        report.add(run);
        if (!options.html.empty())
            pictures.add(run);
    }
    source.finish(globals);
    report.counts = source.counts();
    if (report.counts.runs == 0)
        throw Failure(ExitCode::found, "there is no run with a record in this period",
                      "easctl history shows what there is");
    if (!options.html.empty())
        write_file(options.html, report_page(report, pictures, options.title));
    if (globals.json)
        print_json(report.json());
    else if (options.format == Format::csv)
        print(report.csv());
    else
        print(report.text(globals.colored()));
}

}  // namespace

void add_report_command(CLI::App& app, Globals& globals) {
    const auto options = std::make_shared<ReportOptions>();
    CLI::App& command =
        add_command(app, "report", "what runs used and saved; 1: lines were left out",
                    "easctl report --from 2026-10-01 --to 2026-11-01\n"
                    "easctl report runs.csv --by user --price 0.31 --currency EUR --co2 380\n"
                    "easctl report runs.csv --html report.html");
    options->runs.add_to(command, "RUNS");
    options->runs.add_cluster_to(command);
    add_option(command, "--by", options->by, "month, user, tag, class or policy")
        .show_default()
        .check(one_of({"month", "user", "tag", "class", "policy"}))
        .type_name("GROUP");
    add_option(command, "--price", options->price, "of a kWh (default: no cost is shown)")
        .check(number_from(0.0))
        .type_name("AMOUNT");
    add_option(command, "--currency", options->currency, "of the price")
        .check(some_text())
        .type_name("NAME");
    add_option(command, "--co2", options->co2_g, "of a kWh, g (default: none is shown)")
        .check(number_from(0.0))
        .type_name("GRAMS");
    add_option(command, "--html", options->html, "write a page with pictures, too")
        .check(some_text())
        .type_name("FILE");
    add_option(command, "--title", options->title, "of the page").type_name("TEXT");
    add_format_option(command, options->format);
    set_action(command, [options, &globals] { report(globals, *options); });
}

}  // namespace easctl
