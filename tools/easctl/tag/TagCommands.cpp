// easctl tag: what the scheduler's functions do, for a person; and the commands that change tags.
#include "tools/easctl/tag/TagCommands.h"

#include <algorithm>
#include <climits>
#include <optional>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/tag/JobsFile.h"

namespace easctl {

namespace {

struct Generate {
    LibraryOptions library;
    TagRequest request;
    std::string jobs;
};

Json as_json(const TagRequest& request) {
    return {{"user", request.user}, {"tag", request.tag}, {"job_id", request.job_id}};
}

TagRequest request_of(const JobRow& row) {
    return {std::string(row.user), std::string(row.tag), std::string(row.job_id),
            row.counters,          row.elapsed_s,        row.power_w};
}

/// The tags of a jobs file: what can be made of it is made.
class Generation {
  public:
    Generation(Globals& globals, Library& library, const std::string& path)
        : globals_(globals),
          library_(library),
          jobs_(path, JobsFile::names | JobsFile::job | JobsFile::counters),
          progress_("tags", jobs_.lines().bytes_total(), globals.quiet) {
        jobs_.require_frequency(library.default_khz());
    }

    void run() {
        JobRow row;
        for (CsvFile::Step step{}; (step = jobs_.next(row)) != CsvFile::Step::end;) {
            if (step == CsvFile::Step::row) {
                generate(request_of(row));
            } else {
                failed({ExitCode::input, jobs_.reason()}, {});
            }
            progress_.update(jobs_.lines().bytes_read());
        }
        progress_.hide();
        finish();
    }

  private:
    void generate(const TagRequest& request) {
        try {
            library_.generate(request);
        } catch (const Failure& failure) {
            if (failure.code != ExitCode::refused && failure.code != ExitCode::usage)
                throw;
            failed(failure, {request.user, request.tag});
            return;
        }
        ++made_;
        if (globals_.json) {
            generated_.push_back(as_json(request));
        } else {
            progress_.hide();
            print(printable("generated " + name_of_tag(request.user, request.tag) + " from job " +
                            request.job_id) +
                  '\n');
        }
    }

    void failed(const Failure& failure, const TagNames& names) {
        const FailedRow row{jobs_.where(), failure, names};
        progress_.hide();
        complain({failure.code, row.text()});
        failed_.push_back(row.json());
    }

    void finish() {
        const std::string summary = std::to_string(made_) + " tags generated, " +
                                    std::to_string(failed_.size()) + " rows gave none";
        if (!failed_.empty()) {
            globals_.outcome = ExitCode::found;
            complain({globals_.outcome, summary});
        } else if (!globals_.json) {
            remark(globals_, summary);
        }
        if (globals_.json)
            print_json({{"generated", std::move(generated_)}, {"failed", std::move(failed_)}});
    }

    Globals& globals_;
    Library& library_;
    JobsFile jobs_;
    Progress progress_;
    std::size_t made_ = 0;
    Json generated_ = Json::array();
    Json failed_ = Json::array();
};

void generate(Globals& globals, const Generate& options, bool single) {
    const TagRequest& request = options.request;
    Library library(options.library);
    if (!single) {
        Generation(globals, library, options.jobs).run();
        return;
    }
    library.generate(request);
    if (globals.json) {
        print_json({{"generated", Json::array({as_json(request)})}, {"failed", Json::array()}});
    } else {
        print(printable("generated " + name_of_tag(request.user, request.tag) + " from job " +
                        request.job_id) +
              '\n');
    }
}

struct Remove : TagChoice {
    bool all = false;
    bool yes = false;
};

void remove(Globals& globals, const Remove& options) {
    const TagNames& names = options.names;
    if (names.user.empty() && names.tag.empty() && !options.all) {
        throw Failure(ExitCode::usage, "which tags?",
                      "give --user, --tag or both; --all for every tag of the cluster");
    }
    Library library(options.library);
    const std::size_t count = library.query(names.user, names.tag).size();
    if (count > 1 && !options.yes)
        require_yes("remove " + std::to_string(count) + " tags of cluster \"" + library.cluster() +
                    "\" (" + name_of_tag(names.user, names.tag) + ")?");
    const auto removed = library.remove(names.user, names.tag);
    Json list = Json::array();
    for (const auto& [user, tag] : removed) {
        if (globals.json)
            list.push_back({{"user", user}, {"tag", tag}});
        else
            print(printable("removed " + name_of_tag(user, tag)) + '\n');
    }
    if (globals.json)
        print_json({{"removed", std::move(list)}});
    else if (removed.empty())
        remark(globals, no_tag_named(names.user, names.tag));
}

}  // namespace

void TagNames::add_to(CLI::App& command, bool required) {
    const std::string otherwise = required ? "" : " (default: all)";
    add_option(command, "--user", user, "owner of the tag" + otherwise)
        .required(required)
        .check(some_text())
        .type_name("NAME");
    add_option(command, "--tag", tag, "name of the tag" + otherwise)
        .required(required)
        .check(some_text())
        .type_name("NAME");
}

std::string FailedRow::text() const {
    return printable(place + ": " + failure.message);
}

Json FailedRow::json() const {
    const auto name = [](const std::string& text) {
        return text.empty() ? Json(nullptr) : Json(text);
    };
    Json json{{"place", place},
              {"user", name(names.user)},
              {"tag", name(names.tag)},
              {"message", failure.message}};
    if (!failure.hint.empty())
        json["hint"] = failure.hint;
    return json;
}

OneOrMany::OneOrMany(CLI::App& command, std::string& file, const std::string& description)
    : command_(&command),
      file_(add_option(command, "--jobs", file, description).type_name("FILE")) {}

bool OneOrMany::has_optional() const {
    return std::any_of(optional_.begin(), optional_.end(),
                       [](const Option& option) { return option.given(); });
}

bool OneOrMany::single() const {
    if (file_.given()) {
        for (const auto* options : {&needed_, &optional_}) {
            for (const Option& option : *options) {
                if (option.given())
                    throw Failure(ExitCode::usage, option.name() + " and --jobs exclude each other",
                                  "the jobs file names them in a column");
            }
        }
        return false;
    }
    require(needed_);
    if (has_optional())
        require(optional_);
    return true;
}

void OneOrMany::require(const std::vector<Option>& options) {
    std::string missing;
    for (const Option& option : options) {
        if (!option.given())
            missing += (missing.empty() ? "" : ", ") + option.name();
    }
    if (!missing.empty())
        throw Failure(ExitCode::usage, "missing: " + missing,
                      "give all options of the job, or --jobs FILE for many jobs");
}

Check figure() {
    return Check([](const std::string& text) {
        const std::optional<double> value = parse_number(text);
        return value && *value > 0.0 ? std::string() : text + " is no number above 0";
    });
}

Check whole_seconds() {
    return Check([](std::string& text) {
        const double seconds = parse_number(text).value_or(0.0);
        if (seconds >= 1.0 && seconds <= INT_MAX)
            text = std::to_string(static_cast<int>(seconds));
        return std::string();  // figure() and the conversion say what is wrong
    });
}

Check a_policy() {
    return one_of({std::string(eas::minimize_energy), std::string(eas::minimize_time)});
}

CLI::App& TagChoice::add_command(CLI::App& group, const char* name, const char* description,
                                 const char* examples, bool required) {
    CLI::App& command = easctl::add_command(group, name, description, examples);
    library.add_to(command);
    names.add_to(command, required);
    return command;
}

void add_tag_generate(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Generate>();
    CLI::App& command = add_command(
        group, "generate", "make tags of jobs that ran at the default frequency",
        "easctl tag generate --jobs jobs.csv --thresholds /etc/eas/thresholds.conf\n"
        "easctl tag generate --user anna --tag hpl --job-id 1001.0 --cycles 6.624e13 \\\n"
        "    --instructions 1.5558e14 --memory-bytes 9.957e12 --elapsed 1800 --power 300.3");
    options->library.add_to(command);
    TagRequest& request = options->request;
    OneOrMany given(command, options->jobs,
                    "CSV file of jobs, - for standard input; its header names the columns\n"
                    "user, tag, job_id, cycles, instructions, memory_bytes, elapsed_s, power_w\n"
                    "and, if there is such, frequency_khz: other rows than those of the default\n"
                    "frequency give no tag");
    given.add("--user", request.user, "owner of the tag", "NAME");
    given.add("--tag", request.tag, "name of the tag", "NAME");
    given.add("--job-id", request.job_id, "the job that was measured", "ID");
    given.add("--cycles", request.counters[0], "processor cycles", "N");
    given.add("--instructions", request.counters[1], "instructions", "N");
    given.add("--memory-bytes", request.counters[2], "bytes of memory traffic", "N");
    given.add("--elapsed", request.elapsed_s, "run time", "S");
    option_of(command, "--elapsed").transform(whole_seconds());
    given.add("--power", request.power_w, "mean power of a node", "W");
    set_action(command,
               [options, given, &globals] { generate(globals, *options, given.single()); });
}

void add_tag_remove(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Remove>();
    CLI::App& command = options->add_command(
        group, "remove", "remove tags, and print which",
        "easctl tag remove --user anna --tag hpl\neasctl tag remove --user anna --yes", false);
    add_flag(command, "--all", options->all, "every tag of the cluster and default frequency");
    add_flag(command, "-y,--yes", options->yes, "do not ask before more than one tag is removed");
    set_action(command, [options, &globals] { remove(globals, *options); });
}

void add_tag_commands(CLI::App& app, Globals& globals) {
    CLI::App& group =
        add_group(app, "tag", "energy policy tags: what past jobs are predicted to do");
    add_tag_generate(group, globals);
    add_tag_list(group, globals);
    add_tag_show(group, globals);
    add_tag_select(group, globals);
    add_tag_verify(group, globals);
    add_tag_remove(group, globals);
}

}  // namespace easctl
