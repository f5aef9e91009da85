// The file is CSV with a row for each tag and frequency. Names are written as words of a record:
// what is no letter, digit or one of "_.:+,/@-" as "%" and two hexadecimal digits, so that any name
// can be carried. Numbers read back to the last bit.
#include "tools/easctl/tag/TransferCommands.h"

#include <array>
#include <climits>
#include <cmath>
#include <memory>

#include "tools/easctl/cli/CsvFile.h"
#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/OutputFile.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/history/Run.h"
#include "tools/easctl/model/ModelStore.h"
#include "tools/easctl/tag/FailedRow.h"
#include "tools/easctl/tag/TagNames.h"
#include "tools/easctl/tag/TagTable.h"

namespace easctl {
namespace {

constexpr std::size_t tags_of_transaction = 50;

// In the order in which they are written; found by name when read.
enum class TagColumn : std::size_t {
    user,
    tag,
    job,
    created,
    frequency,
    power,
    saving,
    seconds,
    degradation
};
constexpr std::array<const char*, 9> titles{"user",          "tag",           "job_id",
                                            "created_s",     "frequency_khz", "power_w",
                                            "energy_change", "elapsed_s",     "time_change"};

/// A word without the separator of the columns.
std::string name_word(const std::string& name) {
    std::string word;
    for (const char c : eas::job::to_word(name)) {
        if (c == ',')
            word += "%2C";
        else
            word += c;
    }
    return word;
}

std::string lines_of(const EnergyTag& tag) {
    const std::string names = name_word(tag.user_name()) + "," + name_word(tag.energy_tag_name()) +
                              "," + name_word(tag.job_step_id()) + "," +
                              std::to_string(tag.create_time()) + ",";
    std::string lines;
    for (const eas::TagRow& row : tag.rows())
        lines += names + std::to_string(row.frequency) + "," + exact(row.power) + "," +
                 exact(row.energy_change) + "," + std::to_string(row.seconds) + "," +
                 exact(row.time_change) + "\n";
    return lines;
}

std::string header() {
    std::string line;
    for (const char* title : titles)
        line.append(line.empty() ? "" : ",").append(title);
    return line + "\n";
}

/// Reads the tags of a file, one after the other.
class TagReader {
  public:
    explicit TagReader(const std::string& path) : csv_(path) {
        for (std::size_t i = 0; i < titles.size(); ++i) {
            const auto place = csv_.column(titles[i]);
            if (!place)
                throw Failure(ExitCode::input,
                              csv_.where() + ": the header names no column \"" + titles[i] + '"');
            places_[i] = *place;
        }
        take_row();
    }

    /// False at the end. Throws Failure: a file that cannot be read whole is not taken in parts.
    bool next(EnergyTag& one) {
        one = EnergyTag();
        if (at_end_)
            return false;
        const TagKey key = key_;
        place_ = csv_.where();
        do {
            one.user_name(key_.first);
            one.energy_tag_name(key_.second);
            one.job_step_id(job_);
            one.create_time(created_);
            one.set_array_data(row_.frequency, row_.power, row_.energy_change, row_.seconds,
                               row_.time_change);
            take_row();
        } while (!at_end_ && key_ == key);
        return true;
    }
    /// "FILE:LINE" of the tag's first row.
    [[nodiscard]] const std::string& place() const { return place_; }
    [[nodiscard]] const LineReader& lines() const { return csv_.lines(); }

  private:
    std::string_view field(TagColumn column) const {
        return csv_.fields()[places_[static_cast<std::size_t>(column)]];
    }
    std::string text(TagColumn column) const { return eas::job::from_word(field(column)); }
    double number_of(TagColumn column, double largest) const {
        const auto value = parse_number(field(column));
        const bool whole = column != TagColumn::power && column != TagColumn::saving &&
                           column != TagColumn::degradation;
        if (!value || std::fabs(*value) > largest || (whole && *value != std::floor(*value)))
            throw Failure(ExitCode::input, csv_.where() + ": " +
                                               titles[static_cast<std::size_t>(column)] +
                                               " is no such number");
        return *value;
    }

    void take_row() {
        const CsvFile::Step step = csv_.next();
        if (step == CsvFile::Step::bad_row)
            throw Failure(ExitCode::input, csv_.where() + ": " + csv_.problem());
        at_end_ = step == CsvFile::Step::end;
        if (at_end_)
            return;
        key_ = {text(TagColumn::user), text(TagColumn::tag)};
        job_ = text(TagColumn::job);
        created_ = static_cast<std::int64_t>(number_of(TagColumn::created, 1e15));
        row_ = {static_cast<int>(number_of(TagColumn::frequency, INT_MAX)),
                number_of(TagColumn::power, 1e300), number_of(TagColumn::saving, 1e300),
                static_cast<int>(number_of(TagColumn::seconds, INT_MAX)),
                number_of(TagColumn::degradation, 1e300)};
        if (key_.first.empty() || key_.second.empty() || key_.first.size() > 256 ||
            key_.second.size() > 256 || job_.size() > 1024 || row_.frequency < 1)
            throw Failure(ExitCode::input, csv_.where() + ": no tag that the library could store");
    }

    CsvFile csv_;
    std::array<std::size_t, titles.size()> places_{};
    bool at_end_ = false;
    TagKey key_;
    std::string job_;
    std::int64_t created_ = 0;
    eas::TagRow row_{};
    std::string place_;
};

/// The table of the cluster that the options name.
struct Session {
    explicit Session(ModelOptions& options)
        : database(options.database), model(resolved(options)) {}

    StoredModel resolved(ModelOptions& options) {
        options.resolve(database);
        StoredModel stored = pick_model(database, options.cluster, options.default_khz);
        database.rollback();
        return stored;
    }

    Database database;
    StoredModel model;
    TagTable table{database, model.cluster, model.default_khz};
};

struct Export {
    ModelOptions model;
    TagNames names;
    std::string output;
};

void export_tags(Globals& globals, Export options) {
    if (globals.json)
        throw Failure(ExitCode::usage, "tags are exported as CSV, not as JSON",
                      "easctl --json tag list has the same figures");
    Session session(options.model);
    Progress progress("tags", 0, globals.quiet);
    std::string file = header();
    std::uint64_t count = 0;
    if (options.output.empty())
        print(file);
    session.table.for_each(options.names.user, options.names.tag, [&](const EnergyTag& one) {
        progress.update(++count);
        if (options.output.empty())
            print(lines_of(one));
        else
            file += lines_of(one);
    });
    if (!options.output.empty())
        write_file(options.output, file);
    progress.hide();
    remark(globals, std::to_string(count) + " tags exported");
}

struct Import {
    ModelOptions model;
    std::string file;
    bool replace = false;
};

bool same_tag(const EnergyTag& a, const EnergyTag& b) {
    return lines_of(a) == lines_of(b);
}

/// Stores the tags of a file; those that are there already with other figures are named.
class Importer {
  public:
    Importer(Globals& globals, TagTable& table, const Import& options)
        : globals_(globals),
          table_(table),
          replace_(options.replace),
          reader_(options.file),
          progress_("tags", reader_.lines().bytes_total(), globals.quiet) {}

    void run() {
        for (EnergyTag one; reader_.next(one);) {
            take(one);
            progress_.update(reader_.lines().bytes_read());
        }
        flush();
        progress_.hide();
        finish();
    }

  private:
    void take(const EnergyTag& one) {
        const EnergyTag stored = table_.find({one.user_name(), one.energy_tag_name()});
        if (stored.available() != 0 && same_tag(stored, one)) {
            ++same_;
            return;
        }
        if (stored.available() != 0 && !replace_) {
            fail(one);
            return;
        }
        waiting_.push_back(one);
        if (waiting_.size() >= tags_of_transaction)
            flush();
    }

    void flush() {
        if (waiting_.empty())
            return;
        table_.store(waiting_, replace_);
        stored_ += waiting_.size();
        waiting_.clear();
    }

    void fail(const EnergyTag& one) {
        const FailedRow row{reader_.place(),
                            {ExitCode::found,
                             name_of_tag(one.user_name(), one.energy_tag_name()) +
                                 ": there is another tag of this name",
                             "--replace writes over it"},
                            {one.user_name(), one.energy_tag_name()}};
        progress_.hide();
        complain({ExitCode::found, row.text()});
        failed_.push_back(row.json());
    }

    void finish() {
        if (!failed_.empty())
            globals_.outcome = ExitCode::found;
        if (globals_.json)
            print_json({{"stored", stored_}, {"same", same_}, {"failed", std::move(failed_)}});
        else
            remark(globals_, std::to_string(stored_) + " tags stored, " + std::to_string(same_) +
                                 " were there already");
    }

    Globals& globals_;
    TagTable& table_;
    bool replace_;
    TagReader reader_;
    Progress progress_;
    std::vector<EnergyTag> waiting_;
    std::size_t stored_ = 0;
    std::size_t same_ = 0;
    Json failed_ = Json::array();
};

}  // namespace

void add_tag_export(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Export>();
    CLI::App& command = add_command(group, "export", "write tags as CSV, for import elsewhere",
                                    "easctl tag export --dsn old -o tags.csv");
    options->model.add_to(command);
    options->names.add_to(command, false);
    add_output_option(command, options->output, "default: standard output");
    set_action(command, [options, &globals] { export_tags(globals, *options); });
}

void add_tag_import(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Import>();
    CLI::App& command =
        add_command(group, "import", "store tags that were exported; 1: others have their names",
                    "easctl tag import tags.csv --dsn new\n"
                    "easctl tag export --dsn old | easctl tag import - --dsn new");
    add_option(command, "FILE", options->file, "of tag export, - for standard input").required();
    options->model.add_to(command);
    add_flag(command, "--replace", options->replace, "write over tags of the same names");
    set_action(command, [options, &globals] {
        Import import(*options);
        Session session(import.model);
        Importer(globals, session.table, import).run();
    });
}

}  // namespace easctl
