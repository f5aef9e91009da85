#include "tools/easctl/tag/GenerateCommand.h"

#include <memory>

#include "tools/easctl/cli/Json.h"
#include "tools/easctl/cli/Progress.h"
#include "tools/easctl/tag/FailedRow.h"
#include "tools/easctl/tag/JobOptions.h"
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

void print_made(const TagRequest& request) {
    print(printable("generated " + name_of_tag(request.user, request.tag) + " from job " +
                    request.job_id) +
          '\n');
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
            print_made(request);
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

void generate_tags(Globals& globals, const Generate& options, bool one) {
    const TagRequest& request = options.request;
    Library library(options.library);
    if (!one) {
        Generation(globals, library, options.jobs).run();
        return;
    }
    library.generate(request);
    if (globals.json)
        print_json({{"generated", std::vector<Json>{as_json(request)}}, {"failed", Json::array()}});
    else
        print_made(request);
}

/// The options of one job, and the file of many.
JobOptions add_job_options(CLI::App& command, Generate& options) {
    TagRequest& request = options.request;
    JobOptions given(command, options.jobs,
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
    return given;
}

}  // namespace

void add_tag_generate(CLI::App& group, Globals& globals) {
    const auto options = std::make_shared<Generate>();
    CLI::App& command = add_command(
        group, "generate", "make tags of jobs that ran at the default frequency",
        "easctl tag generate --jobs jobs.csv --thresholds /etc/eas/thresholds.conf\n"
        "easctl tag generate --user anna --tag hpl --job-id 1001.0 --cycles 6.624e13 \\\n"
        "    --instructions 1.5558e14 --memory-bytes 9.957e12 --elapsed 1800 --power 300.3");
    options->library.add_to(command);
    const JobOptions given = add_job_options(command, *options);
    set_action(command, [options, given, &globals] {
        generate_tags(globals, *options, given.describe_one());
    });
}

}  // namespace easctl
