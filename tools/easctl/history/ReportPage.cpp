#include "tools/easctl/history/ReportPage.h"

#include "tools/easctl/cli/Percent.h"
#include "tools/easctl/cli/Units.h"
#include "tools/easctl/history/Svg.h"

namespace easctl {
namespace {

// Blue and orange differ for everybody, and in grey.
constexpr const char* style = R"(
:root { color-scheme: light dark; --paper: #ffffff; --ink: #1c1f23; --soft: #5b636d; --line: #dfe3e8;
  --a: #0068a8; --b: #c4500a; --tile: #f5f7f9; }
@media (prefers-color-scheme: dark) {
  :root { --paper: #15181c; --ink: #e6e9ec; --soft: #a3acb6; --line: #343a42; --a: #59b4f0;
    --b: #ff9a57; --tile: #1e2329; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 2rem 1.25rem 3rem; max-width: 62rem; background: var(--paper);
  color: var(--ink); font: 15px/1.5 system-ui, "DejaVu Sans", sans-serif; }
h1 { font-size: 1.6rem; margin: 0; } h2 { font-size: 1.1rem; margin: 2.2rem 0 .4rem; }
p { margin: .35rem 0; max-width: 46rem; } .soft, figcaption, footer { color: var(--soft); }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(11.5rem, 1fr)); gap: .75rem;
  margin: 1.4rem 0; }
.tile { background: var(--tile); border: 1px solid var(--line); border-radius: .5rem;
  padding: .7rem .9rem; }
.tile b { display: block; font-size: 1.35rem; font-variant-numeric: tabular-nums; }
.tile span { color: var(--soft); font-size: .85rem; }
.warning { border-left: 4px solid var(--b); padding-left: .8rem; }
figure { margin: .4rem 0 0; } figcaption { font-size: .85rem; max-width: 46rem; }
svg { width: 100%; height: auto; display: block; font-size: 11px; }
svg text { fill: var(--soft); } svg .grid { stroke: var(--line); } svg .zero { stroke: var(--soft); }
svg .a { fill: var(--a); } svg .b { fill: var(--b); } svg .dot { fill: var(--a); fill-opacity: .45; }
svg .ring { fill: var(--a); fill-opacity: .3; stroke: var(--a); }
.wide { overflow-x: auto; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; font-size: .88rem; }
th, td { padding: .3rem .7rem; text-align: right; border-bottom: 1px solid var(--line); }
th { color: var(--soft); font-weight: 600; vertical-align: bottom; }
th:first-child, td:first-child { text-align: left; min-width: 5.5rem; overflow-wrap: break-word; }
tr.total td { font-weight: 600; border-top: 2px solid var(--soft); }
footer { margin-top: 2.5rem; font-size: .85rem; }
@media print {
  :root { --paper: #fff; --ink: #000; --soft: #444; --line: #bbb; --a: #0068a8; --b: #c4500a;
    --tile: #fff; }
  body { max-width: none; padding: 0; font-size: 10pt; } svg { max-height: 6cm; }
  figure, .tile, tr { break-inside: avoid; }
  h2 { break-after: avoid; } .wide { overflow: visible; } table { font-size: 8pt; }
  th, td { padding: .2rem .35rem; } svg .dot, svg .ring { print-color-adjust: exact; } }
)";

std::string tile(const std::string& figure, const std::string& what) {
    return "<div class=\"tile\"><b>" + html(figure) + "</b><span>" + html(what) + "</span></div>\n";
}

std::string with_unit(const std::optional<double>& pct) {
    return pct ? signed_number(*pct, 2) + " %" : "no value";
}

std::string tiles(const Report& report) {
    const RunSums total = report.groups.total();
    const Pair& pair = total.compared;
    std::string text = "<div class=\"tiles\">\n" +
                       tile(kwh_text(total.energy_j) + " kWh",
                            "used, measured on " + number(total.measured_runs, 0) + " runs");
    if (pair.runs > 0) {
        const double saved_kwh = pair.saved_j() / joules_per_kwh;
        text += tile(kwh_text(pair.saved_j()) + " kWh",
                     "or " + with_unit(pair.saved_pct()) +
                         " saved: predicted for the default frequency minus measured, " +
                         number(pair.runs, 0) + " runs");
        text += tile(with_unit(pair.added_pct()), "run time added: measured against predicted");
        if (report.factors.price)
            text +=
                tile(number(saved_kwh * *report.factors.price, 2) + " " + report.factors.currency,
                     "saved, at " + exact(*report.factors.price) + " per kWh");
        if (report.factors.co2_g)
            text += tile(number(saved_kwh * *report.factors.co2_g / 1000.0, 2) + " kg CO2",
                         "saved, at " + exact(*report.factors.co2_g) + " g per kWh");
    }
    if (total.checked.runs > 0) {
        const auto most = total.energy_miss.within_pct(0.9);
        text += tile((most ? "within " + number(*most, 1) : "beyond 100") + std::string(" %"),
                     "of the prediction lies the measured energy of nine of ten checked runs");
    }
    return text + "</div>\n";
}

std::string figure(const char* heading, const std::string& svg, const char* caption) {
    const std::string body =
        svg.empty() ? "<p class=\"soft\">No run has these figures.</p>\n"
                    : "<figure>\n" + svg + "<figcaption>" + caption + "</figcaption>\n</figure>\n";
    return std::string("<h2>") + heading + "</h2>\n" + body;
}

std::string table(const Report& report) {
    std::string text = "<h2>By " + html(report.group) + "</h2>\n<div class=\"wide\"><table>\n";
    const Table table = report.table();
    const auto add = [&](const std::vector<std::string>& cells, const char* name, const char* row) {
        text += row;
        for (const std::string& cell : cells)
            text += std::string("<") + name + ">" + html(cell) + "</" + name + ">";
        text += "</tr>\n";
    };
    std::vector<std::vector<std::string>> rows = table.cells();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const bool total = i > 1 && i + 1 == rows.size();
        add(rows[i], i == 0 ? "th" : "td", total ? "<tr class=\"total\">" : "<tr>");
    }
    return text +
           "</table></div>\n<p class=\"soft\">* predicted for the default frequency minus "
           "measured, over the compared runs</p>\n";
}

std::string coverage(const Report& report) {
    std::string text = "<h2>How far to trust this</h2>\n";
    const bool warned = report.groups.total().saving_exceeds_miss() == false;
    const std::vector<std::string> lines = report.coverage();
    for (std::size_t i = 0; i < lines.size(); ++i)
        text += std::string(warned && i + 1 == lines.size() ? "<p class=\"warning\">" : "<p>") +
                html(lines[i]) + "</p>\n";
    return text;
}

}  // namespace

std::string report_page(const Report& report, const ReportPictures& pictures,
                        const std::string& title) {
    const std::string period =
        report.period().empty() ? "No run has a time." : "Runs that ended " + report.period() + ".";
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
           "'unsafe-inline'\">\n<title>" +
           html(title) + "</title>\n<style>" + style + "</style>\n</head>\n<body>\n<h1>" +
           html(title) + "</h1>\n<p class=\"soft\">" + html(period) + "</p>\n" + tiles(report) +
           coverage(report) +
           figure("Savings over time", pictures.savings_over_time(),
                  "Predicted for the default frequency minus measured, of the compared runs. "
                  "Below zero, runs used more than predicted for the default frequency.") +
           figure("Predicted and measured", pictures.predicted_against_measured(),
                  "A point for each checked run (at most 800, drawn at random): by how much its "
                  "measured energy differs from what its tag predicted for it.") +
           figure("What each tag trades", pictures.trade_off(),
                  "The 40 tags that used most energy at a selected frequency; the larger, the "
                  "more. Time and energy are measured, and held against the prediction for the "
                  "default frequency.") +
           table(report) +
           "<footer>Made by easctl " EASCTL_VERSION
           ". Measured: by the meters of the nodes. Predicted: by the tags of the jobs. Saved: the "
           "difference of both, never a measurement.</footer>\n</body>\n</html>\n";
}

}  // namespace easctl
