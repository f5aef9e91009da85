// The five exported functions: argument checks and the order of steps. A step that can throw runs
// under the code that its failure has.
#include "interface/interface.h"

#include <string>
#include <string_view>
#include <vector>

#include "common/model/CoEfficients.h"
#include "common/model/EnergyTag.h"
#include "common/model/JobMetrics.h"
#include "db/base_class/DB_Ptr.h"
#include "db/base_class/Transaction.h"
#include "interface/Boundary.h"
#include "interface/FrequencyPolicy.h"
#include "interface/Initialization.h"
#include "interface/LibraryState.h"
#include "interface/TagRecord.h"
#include "interface/TagRequest.h"
#include "interface/TagStore.h"

namespace {

bool is_empty(const char* text) {
    return *text == '\0';
}

/// Null counts as empty, which matches all.
eas::TagRequest request_for(const char* cluster_name, int default_frequency, const char* user_name,
                            const char* tag_name) {
    const auto or_empty = [](const char* text) { return text != nullptr ? text : ""; };
    return {cluster_name, default_frequency, or_empty(user_name), or_empty(tag_name)};
}

/// Appends the tags to `tags`; their number, or -1.
int read_tags(DBConnection& conn, const eas::TagRequest& request, std::vector<EnergyTag>& tags) {
    const eas::Transaction read_only(conn);
    return read_tags_from_db(&conn, request.cluster, request.default_frequency, request.user,
                             request.tag, tags);
}

struct Job {
    const char* cluster_name;
    int default_frequency;  // kHz
    const char* user_name;
    const char* tag_name;
    const double* hw_counters;  // cycles, instructions, bytes of memory traffic
    const char* job_id;
    int time_elapsed;       // s
    double power_consumed;  // W

    [[nodiscard]] bool is_valid() const {
        return cluster_name != nullptr && user_name != nullptr && tag_name != nullptr &&
               hw_counters != nullptr && job_id != nullptr && default_frequency > 0 &&
               time_elapsed > 0 && !(0.0000001 > power_consumed) && !is_empty(tag_name) &&
               !is_empty(cluster_name) && !is_empty(user_name) && !is_empty(job_id);
    }
    [[nodiscard]] eas::TagRequest request() const {
        return request_for(cluster_name, default_frequency, user_name, tag_name);
    }
};

EnergyTag predict(CoEfficients& coeffs, const Job& job) {
    const double gbs = GBS(job.hw_counters[2], job.time_elapsed);
    const double cpi = CPI(job.hw_counters[0], job.hw_counters[1]);
    const double gips = GIPS(job.hw_counters[1], job.time_elapsed);
    return {&coeffs,
            job.cluster_name,
            job.user_name,
            job.job_id,
            job.tag_name,
            job.power_consumed,
            job.time_elapsed,
            gbs,
            gips,
            cpi};
}

/// A lookup that fails finds no tag: the database refuses a second one by itself.
bool tag_exists(DBConnection& conn, const Job& job) {
    std::vector<EnergyTag> existing;
    return read_tags(conn, job.request(), existing) > 0;
}

int generate(const Job& job, int& failure) {
    failure = EAS_TAG_NOT_AVAILABLE;
    CoEfficients coeffs(*global_coeffs);
    if (coeffs.getDefaultFrequency() != job.default_frequency)
        return EAS_BAD_ARGUMENT;

    failure = EAS_NO_CONNECTION;
    const DB_Ptr conn(create_db_connection());
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_TAG_NOT_AVAILABLE;
    if (tag_exists(*conn, job))
        return EAS_TAG_EXISTS;
    const EnergyTag tag = predict(coeffs, job);
    if (tag.available() == 0)
        return EAS_TAG_NOT_AVAILABLE;

    failure = EAS_STORE_FAILED;
    return load_etag_into_db(conn.get(), tag) == 0 ? EAS_OK : EAS_STORE_FAILED;
}

int query(const eas::TagRequest& request, int& num_tags, energyPolicyTag_t*& tags, int& failure) {
    eas::open_debug_log_if_wanted();
    failure = EAS_NO_CONNECTION;
    DB_Ptr conn(create_db_connection());
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_QUERY_FAILED;
    std::vector<EnergyTag> found;
    const int count = read_tags(*conn, request, found);
    conn.reset();
    if (count <= 0)
        return count < 0 ? EAS_QUERY_FAILED : EAS_OK;

    eas::TagRecords records;
    if (!records.fill(found))
        return EAS_QUERY_FAILED;
    records.hand_out(num_tags, tags);
    return EAS_OK;
}

int remove(const eas::TagRequest& request, int& tag_count, char**& user_list, char**& tagname_list,
           int& failure) {
    failure = EAS_NO_CONNECTION;
    const DB_Ptr conn(create_db_connection());
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_REMOVE_FAILED;
    tag_count = 0;
    const int count = remove_tags_from_db(conn.get(), request.cluster, request.default_frequency,
                                          request.user, request.tag, user_list, tagname_list);
    if (count < 0)
        return EAS_REMOVE_FAILED;
    tag_count = count;
    return EAS_OK;
}

bool is_policy(std::string_view policy) {
    return policy == eas::minimize_time || policy == eas::minimize_energy;
}

int select_for(const eas::TagRequest& request, const char* energy_policy, int& selected_frequency,
               double& time_var, int& failure) {
    failure = EAS_NO_CONNECTION;
    DB_Ptr conn(create_db_connection());
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_NO_UNIQUE_TAG;
    std::vector<EnergyTag> found;
    const int count = read_tags(*conn, request, found);
    conn.reset();
    if (count != 1 || found.front().available() == 0)
        return EAS_NO_UNIQUE_TAG;
    selectedFrequencyPolicy(found.front(), energy_policy, selected_frequency, time_var);
    return EAS_OK;
}

}  // namespace

int eas_initialize(char* cluster_name, int default_frequency, char* threshold_file) {
    return eas::initialize_from(nullptr, cluster_name, default_frequency, threshold_file);
}

int eas_generate_tag(char* cluster_name, int default_frequency, char* user_name, char* tag_name,
                     double* hw_counters, char* job_id, int time_elapsed, double power_consumed) {
    const Job job{cluster_name, default_frequency, user_name,     tag_name, hw_counters,
                  job_id,       time_elapsed,      power_consumed};
    if (!job.is_valid())
        return EAS_BAD_ARGUMENT;
    return eas::at_the_boundary(global_coeffs, EAS_TAG_NOT_AVAILABLE,
                                [&](int& failure) { return generate(job, failure); });
}

int eas_query_tag(char* cluster_name, int default_frequency, char* user_name, char* tag_name,
                  int* num_tags, energyPolicyTag_t** tags) {
    if (default_frequency < 1 || cluster_name == nullptr || num_tags == nullptr || tags == nullptr)
        return EAS_BAD_ARGUMENT;
    *num_tags = 0;
    *tags = nullptr;
    return eas::at_the_boundary(global_threshold, EAS_QUERY_FAILED, [&](int& failure) {
        return query(request_for(cluster_name, default_frequency, user_name, tag_name), *num_tags,
                     *tags, failure);
    });
}

int eas_remove_tag(char* cluster_name, int default_frequency, char* user_name, char* tag_name,
                   int* tag_count, char*** user_list, char*** tagname_list) {
    if (default_frequency < 1 || cluster_name == nullptr || tag_count == nullptr ||
        user_list == nullptr || tagname_list == nullptr)
        return EAS_BAD_ARGUMENT;
    return eas::at_the_boundary(global_threshold, EAS_REMOVE_FAILED, [&](int& failure) {
        return remove(request_for(cluster_name, default_frequency, user_name, tag_name), *tag_count,
                      *user_list, *tagname_list, failure);
    });
}

int eas_auto_select_frequency(char* cluster_name, int default_frequency, char* user_name,
                              char* tag_name, char* energy_policy, int* selected_frequency,
                              double* time_var) {
    if (default_frequency < 1 || cluster_name == nullptr || user_name == nullptr ||
        tag_name == nullptr || energy_policy == nullptr || selected_frequency == nullptr ||
        time_var == nullptr || !is_policy(energy_policy))
        return EAS_BAD_ARGUMENT;
    return eas::at_the_boundary(global_threshold, EAS_NO_UNIQUE_TAG, [&](int& failure) {
        return select_for(request_for(cluster_name, default_frequency, user_name, tag_name),
                          energy_policy, *selected_frequency, *time_var, failure);
    });
}
