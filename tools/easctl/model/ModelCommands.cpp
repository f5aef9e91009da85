// easctl model: the coefficients of a cluster between the text file, the database and the eye.
#include <cstdio>
#include <memory>

#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/OutputFile.h"
#include "tools/easctl/model/ModelFile.h"
#include "tools/easctl/model/ModelStore.h"

namespace easctl {
namespace {

struct Options {
    DatabaseOptions database;
    std::string file;
    std::string cluster;
    int default_khz = 0;
    bool dry_run = false;
    bool replace = false;
    Format format = Format::table;
    bool yes = false;

    void add_cluster(CLI::App& command, bool required) {
        const Option option =
            add_option(command, "--cluster", cluster, "the cluster's name").type_name("NAME");
        option.required(required).check(some_text());
    }
    void add_default_frequency(CLI::App& command, const char* text) {
        add_option(command, "--default-frequency", default_khz, text)
            .type_name("KHZ")
            .check(positive_number());
    }
};

Json json_of(const StoredModel& model) {
    return {{"cluster", model.cluster},         {"default_frequency_khz", model.default_khz},
            {"frequencies", model.frequencies}, {"lowest_khz", model.lowest_khz},
            {"highest_khz", model.highest_khz}, {"tag_rows", model.tag_rows}};
}

// --- import ---

/// Throws Failure after any error in the file.
ModelFile checked_file(const Options& options, Globals& globals) {
    ModelFile file = read_model_file(options.file);
    CoEfficients& model = file.coefficients;
    if (file.findings.has_errors())
        throw Failure(ExitCode::input, file.findings.errors_as_message(),
                      "mend these lines; the database is as it was");
    if (!file.findings.empty() && !globals.quiet && !globals.json)
        std::fputs(file.findings.text(color_wanted(globals.color, stderr)).c_str(), stderr);
    if (options.default_khz != 0 && options.default_khz != model.getDefaultFrequency())
        throw Failure(ExitCode::input, options.file + ": the row of zeros is that of " +
                                           std::to_string(model.getDefaultFrequency()) +
                                           " kHz, not of --default-frequency");
    model.setClusterName(options.cluster);
    return file;
}

void report_import(const Options& options, const ModelFile& file, const char* verdict,
                   Database& database, Globals& globals) {
    const CoEfficients& model = file.coefficients;
    if (globals.json) {
        print_json({{"cluster", options.cluster},
                    {"default_frequency_khz", model.getDefaultFrequency()},
                    {"frequencies", model.total_frequencies()},
                    {"dsn", database.dsn()},
                    {"result", verdict},
                    {"findings", file.findings.json()}});
        return;
    }
    print(options.cluster + ": " + std::to_string(model.total_frequencies()) +
          " frequencies, default " + ghz(model.getDefaultFrequency()) + ", " + verdict +
          " (data source " + database.dsn() + ")\n");
}

void import_model(const Options& options, Globals& globals) {
    require_cluster_name(options.cluster);
    const ModelFile file = checked_file(options, globals);
    const CoEfficients& model = file.coefficients;
    const int default_khz = model.getDefaultFrequency();
    Database database(options.database);
    const CoEfficients stored = load_model(database, options.cluster, default_khz);
    if (stored.total_frequencies() > 0 && same_rows(stored, model)) {
        report_import(options, file, "stored already", database, globals);
        return;
    }
    if (stored.total_frequencies() > 0 && !options.replace)
        throw Failure(ExitCode::database,
                      "data source \"" + database.dsn() + "\": cluster \"" + options.cluster +
                          "\" has other coefficients for " + std::to_string(default_khz) +
                          " kHz already; none of these was stored",
                      "look at them with easctl model show; --replace puts these in their place");
    store_model(database, options.cluster, model);
    if (options.dry_run) {
        database.rollback();
        report_import(options, file, "would be stored", database, globals);
        return;
    }
    const long tag_rows = pick_model(database, options.cluster, default_khz).tag_rows;
    database.commit();
    report_import(options, file, stored.total_frequencies() > 0 ? "replaced" : "stored", database,
                  globals);
    if (tag_rows > 0)
        remark(globals, std::to_string(tag_rows) +
                            " rows of tags were predicted with other coefficients; schedulers use "
                            "the new ones when they are started again");
}

// --- export, list, show, remove ---

std::string file_text(const CoEfficients& model) {
    std::string text = "# Cluster " + printable(model.getClusterName()) + ", default frequency " +
                       ghz(model.getDefaultFrequency()) +
                       ". kHz:A,B,C,D,E,F   power = A P + B x + C   "
                       "cycles/instruction = D cpi + E x + F\n";
    for (const eas::ModelRow& row : model.rows())
        text += file_line(row);
    return text;
}

Json json_of(const CoEfficients& model) {
    Json rows = Json::array();
    for (const auto& [frequency, factors] : model.rows())
        rows.push_back({{"frequency_khz", frequency}, {"coefficients", factors}});
    return {{"cluster", model.getClusterName()},
            {"default_frequency_khz", model.getDefaultFrequency()},
            {"rows", rows}};
}

CoEfficients load(const Options& options) {
    require_cluster_name(options.cluster);
    Database database(options.database);
    const StoredModel model = pick_model(database, options.cluster, options.default_khz);
    return load_model(database, model.cluster, model.default_khz);
}

void export_model(const Options& options, Globals& globals) {
    const CoEfficients model = load(options);
    if (!options.file.empty())
        write_file(options.file, file_text(model));
    if (globals.json)
        print_json(json_of(model));
    else if (options.file.empty())
        print(file_text(model));
}

/// For programs with the numbers as they are.
Table table_of(const std::vector<StoredModel>& models, bool csv) {
    Table table(csv ? std::vector<Column>{{"cluster"},
                                          {"default_frequency_khz"},
                                          {"frequencies"},
                                          {"lowest_khz"},
                                          {"highest_khz"},
                                          {"tag_rows"}}
                    : std::vector<Column>{{"Cluster"},
                                          {"Default", Align::right},
                                          {"Frequencies", Align::right},
                                          {"Lowest", Align::right},
                                          {"Highest", Align::right},
                                          {"Tag rows", Align::right}});
    const auto frequency = [csv](int khz) { return csv ? std::to_string(khz) : ghz(khz); };
    for (const StoredModel& model : models)
        table.add({model.cluster, frequency(model.default_khz), std::to_string(model.frequencies),
                   frequency(model.lowest_khz), frequency(model.highest_khz),
                   std::to_string(model.tag_rows)});
    return table;
}

void list_models(const Options& options, Globals& globals) {
    Database database(options.database);
    const std::vector<StoredModel> models = stored_models(database);
    if (globals.json) {
        Json list = Json::array();
        for (const StoredModel& model : models)
            list.push_back(json_of(model));
        print_json({{"models", std::move(list)}});
        return;
    }
    if (models.empty())
        remark(globals, "data source \"" + database.dsn() + "\" holds no coefficients");
    const bool csv = options.format == Format::csv;
    const Table table = table_of(models, csv);
    if (csv)
        print(table.csv());
    else if (!models.empty())
        print(table.text(globals.colored()));
}

/// Coefficients say little to the eye; what three typical jobs would do at each frequency does.
Table effects_of(const CoEfficients& model) {
    std::vector<Column> columns{{"FREQUENCY", Align::right}};
    for (const char letter : std::string_view("ABCDEF"))
        columns.push_back({std::string(1, letter), Align::right});
    for (const TypicalJob& job : typical_jobs())
        columns.push_back({std::string(job.name) + " time/power", Align::right});
    Table table(columns);
    const auto percent = [](double ratio) {
        return (ratio >= 1.0 ? "+" : "") + number((ratio - 1.0) * 100.0, 1) + " %";
    };
    for (const eas::ModelRow& row : model.rows()) {
        const bool is_default = row.frequency == model.getDefaultFrequency();
        std::vector<Cell> cells{Cell(ghz(row.frequency), is_default ? Style::bold : Style::plain)};
        for (const double factor : row.factors)
            cells.emplace_back(is_default ? "default" : number(factor, 4));
        for (const TypicalJob& job : typical_jobs()) {
            const Change change = predict(row, model.getDefaultFrequency(), job);
            cells.emplace_back(is_default ? "measured"
                                          : percent(change.time) + " / " + percent(change.power));
        }
        table.add(std::move(cells));
    }
    return table;
}

void show_model(const Options& options, Globals& globals) {
    const CoEfficients model = load(options);
    const Findings findings = check_stored_model(model, model.getClusterName());
    if (findings.has_errors())
        globals.outcome = ExitCode::found;
    if (globals.json) {
        Json document = json_of(model);
        document["findings"] = findings.json();
        print_json(document);
        return;
    }
    print("Cluster " + printable(model.getClusterName()) + ", default frequency " +
          ghz(model.getDefaultFrequency()) + "\n\n");
    print(effects_of(model).text(globals.colored()));
    if (!findings.empty())
        print('\n' + findings.text(globals.colored()));
}

void remove_stored(const Options& options, Globals& globals) {
    Database database(options.database);
    const StoredModel model = pick_model(database, options.cluster, options.default_khz);
    const std::string what = std::to_string(model.frequencies) + " coefficient rows of " +
                             printable(model.cluster) + ", default " + ghz(model.default_khz);
    database.rollback();  // holds no lock while a person thinks
    if (!options.yes)
        require_yes("remove " + what + "?");
    remove_model(database, model.cluster, model.default_khz);
    database.commit();
    if (globals.json)
        print_json({{"removed", json_of(model)}});
    else
        print("removed " + what + '\n');
    if (model.tag_rows > 0)
        remark(globals,
               std::to_string(model.tag_rows) +
                   " rows of tags for it stay, and nothing can be selected from them until "
                   "coefficients are imported again");
}

using Action = void (*)(const Options&, Globals&);

CLI::App& add(CLI::App& group, Globals& globals, const std::shared_ptr<Options>& options,
              const char* name, Action action, const char* description, const char* examples) {
    CLI::App& command = add_command(group, name, description, examples);
    options->database.add_to(command);
    set_action(command, [options, action, &globals] { action(*options, globals); });
    return command;
}

void add_import(CLI::App& group, Globals& globals, const std::shared_ptr<Options>& options) {
    CLI::App& command =
        add(group, globals, options, "import", import_model,
            "Checks a coefficient file line by line and stores its rows in one transaction.",
            "easctl model import coefficients.txt --cluster sample\n"
            "easctl model import coefficients.txt --cluster sample --dry-run\n"
            "easctl model import new.txt --cluster sample --replace");
    add_option(command, "FILE", options->file, "rows kHz:A,B,C,D,E,F; - for standard input")
        .required();
    options->add_cluster(command, true);
    options->add_default_frequency(command, "the default frequency that the file must have");
    add_flag(command, "--dry-run", options->dry_run, "do all of it, then take it back");
    add_flag(command, "--replace", options->replace, "put the rows in the place of stored ones");
}

void add_others(CLI::App& group, Globals& globals, const std::shared_ptr<Options>& options) {
    const char* const which = "which, where the cluster has several";
    CLI::App& list = add(group, globals, options, "list", list_models,
                         "Lists the clusters that have coefficients.",
                         "easctl model list\neasctl model list --format csv >models.csv");
    add_format_option(list, options->format);
    CLI::App& show = add(group, globals, options, "show", show_model,
                         "Shows a cluster's coefficients and what they predict for typical jobs.",
                         "easctl model show --cluster sample");
    CLI::App& save = add(group, globals, options, "export", export_model,
                         "Writes a cluster's coefficients as a file that import reads; exact.",
                         "easctl model export --cluster sample >coefficients.txt\n"
                         "easctl model export --cluster sample --output coefficients.txt");
    add_output_option(save, options->file, "instead of standard output");
    CLI::App& remove =
        add(group, globals, options, "remove", remove_stored,
            "Removes a cluster's coefficients; tags stay.",
            "easctl model remove --cluster sample --default-frequency 2300000 --yes");
    add_flag(remove, "--yes", options->yes, "do not ask");
    for (CLI::App* command : {&show, &save, &remove}) {
        options->add_cluster(*command, true);
        options->add_default_frequency(*command, which);
    }
}

}  // namespace

CLI::App& add_model_commands(CLI::App& app, Globals& globals) {
    CLI::App& group = add_group(app, "model", "the energy model: a cluster's coefficients");
    const auto options = std::make_shared<Options>();
    add_import(group, globals, options);
    add_others(group, globals, options);
    return group;
}

}  // namespace easctl
