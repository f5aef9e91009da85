#include "tools/easctl/tag/Library.h"

#include "common/model/CoEfficients.h"
#include "interface/Initialization.h"
#include "interface/LibraryState.h"
#include "interface/TagRecord.h"
#include "interface/TagRequest.h"
#include "interface/interface.h"
#include "tools/easctl/cli/Command.h"
#include "tools/easctl/cli/Output.h"
#include "tools/easctl/model/ModelStore.h"

namespace easctl {

namespace {

EnergyTag tag_of(const energyPolicyTag_t& record) {
    const auto text = [](const char* name) { return name != nullptr ? name : ""; };
    EnergyTag tag;
    tag.cluster_name(text(record.cluster_name));
    tag.user_name(text(record.user_name));
    tag.energy_tag_name(text(record.energy_tag_name));
    tag.job_step_id(text(record.job_id));
    tag.default_frequency(record.default_frequency);
    for (int i = 0; i < record.num_freq; ++i) {
        tag.set_array_data(record.frequencies[i], record.predict_power[i],
                           record.energy_saving_pct[i], record.predict_elapse_time[i],
                           record.perf_degrad_pct[i]);
    }
    return tag;
}

/// Names are stored as printf writes them.
std::string as_stored(std::string name) {
    for (auto at = name.find("%%"); at != std::string::npos; at = name.find("%%", at + 1))
        name.erase(at, 1);
    return name;
}

}  // namespace

void LibraryOptions::add_to(CLI::App& command) {
    ModelOptions::add_to(command);
    add_thresholds_option(command, thresholds);
}

Library::Library(LibraryOptions options) : options_(std::move(options)) {
    if (options_.thresholds.empty()) {
        throw Failure(ExitCode::usage, "no file of performance thresholds is given",
                      std::string("give --thresholds FILE, or set ") + thresholds_variable);
    }
    if (options_.thresholds == "-")
        options_.thresholds = "/dev/stdin";  // the library opens it itself
    {
        // A database that does not answer is explained better by a connection of our own.
        Database database(options_.database);
        options_.resolve(database);
        sqlite_ = database.engine() == Engine::sqlite;
    }
    diagnostics_.emplace();
    const int code =
        eas::initialize_from(options_.database.dsn_name().c_str(), options_.cluster.c_str(),
                             options_.default_khz, options_.thresholds.c_str());
    if (code == EAS_OK)
        return;
    const bool by_file = code == EAS_BAD_THRESHOLD_FILE || code == EAS_THRESHOLDS_COMMENTED_OUT;
    throw refusal(Function::initialize, code,
                  by_file ? options_.thresholds
                          : "cluster \"" + options_.cluster + "\" at " + ghz(options_.default_khz),
                  diagnostics_->take());
}

const CoEfficients& Library::coefficients() const {
    return *global_coeffs;
}

const EnergyPerfThreshold& Library::thresholds() const {
    return *global_threshold;
}

void Library::require_names(const std::string& user, const std::string& tag) const {
    for (const std::string& name : {user, tag}) {
        if (sqlite_ && is_column(name, "TQVN_EnergyPolicyTag"))
            throw Failure(ExitCode::usage,
                          name_of_tag(user, tag) + ": SQLite reads \"" + name +
                              "\" as a column of its table, not as a name",
                          "choose another name; MariaDB takes this one, too");
    }
}

void Library::generate(const TagRequest& request) {
    require_names(request.user, request.tag);
    for (const std::string& name : {request.user, request.tag}) {
        if (!eas::is_safe_in_condition(as_stored(name)))
            throw Failure(ExitCode::usage,
                          name_of_tag(request.user, request.tag) + ": a tag of the name \"" + name +
                              "\" could never be looked up",
                          "leave out double quotes, and a backslash at the end");
    }
    TagRequest copy(request);  // the function takes pointers to what it could change
    const int code = eas_generate_tag(options_.cluster.data(), options_.default_khz,
                                      copy.user.data(), copy.tag.data(), copy.counters.data(),
                                      copy.job_id.data(), copy.elapsed_s, copy.power_w);
    const std::string said = diagnostics_->take();
    if (code != EAS_OK) {
        throw refusal(Function::generate_tag, code, name_of_tag(request.user, request.tag),
                      code == EAS_STORE_FAILED || code == EAS_NO_CONNECTION ? said : "");
    }
    read_back(request);
}

/// A commit that fails is not reported, and of two servers' tags one is kept.
void Library::read_back(const TagRequest& request) {
    const std::vector<EnergyTag> there = query(as_stored(request.user), as_stored(request.tag));
    const std::string name = name_of_tag(request.user, request.tag);
    if (there.empty())
        throw Failure(ExitCode::refused, name + ": the database did not keep it",
                      "easctl doctor looks at the database; then try again");
    if (there.front().job_step_id() != as_stored(request.job_id))
        throw Failure(ExitCode::refused,
                      name + ": there is one of job " + there.front().job_step_id() + " already");
}

std::vector<EnergyTag> Library::query(const std::string& user, const std::string& tag) {
    require_names(user, tag);
    std::string users(user);
    std::string tags(tag);
    eas::TagRecords found;
    const int code = eas_query_tag(options_.cluster.data(), options_.default_khz, users.data(),
                                   tags.data(), found.count(), found.records());
    const std::string said = diagnostics_->take();
    if (code != EAS_OK)
        throw refusal(Function::query_tag, code, name_of_tag(user, tag), said);
    std::vector<EnergyTag> result;
    for (const energyPolicyTag_t& record : found)
        result.push_back(tag_of(record));
    return result;
}

eas::FrequencyChoice Library::select(const std::string& user, const std::string& tag,
                                     const std::string& policy) {
    require_names(user, tag);
    std::string users(user);
    std::string tags(tag);
    std::string policies(policy);
    eas::FrequencyChoice choice{0, 0.0};
    const int code = eas_auto_select_frequency(options_.cluster.data(), options_.default_khz,
                                               users.data(), tags.data(), policies.data(),
                                               &choice.frequency, &choice.time_var);
    const std::string said = diagnostics_->take();
    if (code != EAS_OK) {
        throw refusal(Function::auto_select_frequency, code, name_of_tag(user, tag),
                      code == EAS_NO_CONNECTION ? said : "");
    }
    return choice;
}

std::string name_of_tag(const std::string& user, const std::string& tag) {
    return (tag.empty() ? "all tags" : "tag \"" + tag + '"') +
           (user.empty() ? std::string() : " of " + user);
}

std::string no_tag_named(const std::string& user, const std::string& tag) {
    return tag.empty() ? "there is no tag" + (user.empty() ? std::string() : " of " + user)
                       : "there is no " + name_of_tag(user, tag);
}

}  // namespace easctl
