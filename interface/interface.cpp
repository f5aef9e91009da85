// The five exported functions: argument checks, the order of steps, exceptions turned into codes.
//
// A step that can throw runs under the code that its failure has; nothing but a thread's
// cancellation leaves a function other than by return.
#include "interface/interface.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/CancelState.h"
#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "common/model/JobMetrics.h"
#include "db/base_class/DBConnection.h"
#include "db/base_class/DBLibrary.h"
#include "interface/FrequencyPolicy.h"
#include "interface/LibraryState.h"
#include "interface/Locator.h"
#include "interface/TagRecord.h"
#include "interface/TagStore.h"

namespace {

/// Runs `steps(failure)`. Where a step throws, `failure` holds the code to return, which the steps
/// keep up to date; `clean_up` then undoes what they left.
template <typename Steps, typename CleanUp>
int without_exceptions(int failure, Steps&& steps, CleanUp&& clean_up) {
    try {
        return steps(failure);
    } catch (abi::__forced_unwind&) {
        clean_up();
        throw;
    } catch (...) {
        clean_up();
        return failure;
    }
}

/// Runs a working function's steps where its part of the library's state, `needed`, is there.
///
/// The thread's cancellation waits meanwhile, but for the waits between two attempts to connect:
/// the driver manager and the drivers know nothing of it, and a thread that ended inside them would
/// keep their locks, handles and descriptors.
template <typename State, typename Steps>
int at_the_boundary(State* const& needed, int failure, Steps&& steps) {
    const eas::DeferCancellation until_done;
    const eas::CallInProgress call;
    if (!call.admitted() || needed == nullptr)
        return EAS_NOT_INITIALIZED;
    return without_exceptions(failure, std::forward<Steps>(steps), [] {});
}

eas::OwnedConnection open_connection() {
    return eas::OwnedConnection(create_db_connection());
}

bool is_empty(const char* text) {
    return *text == '\0';
}

std::string or_empty(const char* text) {
    return text != nullptr ? text : "";
}

// --- eas_initialize -----------------------------------------------------------------------------

void discard_model() {
    eas::set_global_coeffs(nullptr);
    eas::set_global_threshold(nullptr);
}

void uninitialize() {
    DBLibrary::release();
    discard_model();
}

bool read_model(const eas::OwnedConnection& conn, const char* cluster_name, int default_frequency,
                CoEfficients& coeffs) {
    const bool read = read_coeffs_from_db(conn.get(), cluster_name, default_frequency, coeffs) == 0;
    eas::end_read(*conn);
    return read;
}

int keep_thresholds(const char* threshold_file) {
    EnergyPerfThreshold thresholds(global_coeffs, threshold_file);
    if (!thresholds.isValid()) {
        const bool empty = thresholds.isAllCommentOut();
        uninitialize();
        return empty ? EAS_THRESHOLDS_COMMENTED_OUT : EAS_BAD_THRESHOLD_FILE;
    }
    auto kept = std::make_unique<EnergyPerfThreshold>();
    *kept = thresholds;
    eas::set_global_threshold(std::move(kept));
    return EAS_OK;
}

std::string located_dsn() {
    std::string dsn = get_dsn();
    return dsn.empty() ? defdsn : dsn;
}

int initialize(const char* dsn, const char* cluster_name, int default_frequency,
               const char* threshold_file, int& failure) {
    if (!DBLibrary::init(odbc_lib))
        return EAS_NO_CONNECTION;
    DBConnection::setDBinfo(dsn != nullptr ? dsn : located_dsn().c_str(), nullptr, nullptr,
                            nullptr);
    eas::OwnedConnection conn = open_connection();
    if (!conn)
        return EAS_NO_CONNECTION;  // the driver manager stays loaded

    failure = EAS_NO_COEFFICIENTS;
    CoEfficients coeffs;
    const bool read = read_model(conn, cluster_name, default_frequency, coeffs);
    conn.reset();
    if (!read) {
        DBLibrary::release();
        return EAS_NO_COEFFICIENTS;
    }
    eas::set_global_coeffs(std::make_unique<CoEfficients>(std::move(coeffs)));

    failure = EAS_BAD_THRESHOLD_FILE;
    return keep_thresholds(threshold_file);
}

// --- eas_generate_tag ---------------------------------------------------------------------------

struct Job {
    const char* cluster_name;
    int default_frequency;  // KHz
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

bool tag_exists(const eas::OwnedConnection& conn, const Job& job) {
    std::vector<EnergyTag> existing;
    // A lookup that fails is no tag found: the database refuses a second one by itself.
    const int count = read_tags_from_db(conn.get(), job.cluster_name, job.default_frequency,
                                        job.user_name, job.tag_name, existing);
    eas::end_read(*conn);
    return count > 0;
}

int generate(const Job& job, int& failure) {
    failure = EAS_TAG_NOT_AVAILABLE;
    CoEfficients coeffs(*global_coeffs);
    if (coeffs.getDefaultFrequency() != job.default_frequency)
        return EAS_BAD_ARGUMENT;

    failure = EAS_NO_CONNECTION;
    const eas::OwnedConnection conn = open_connection();
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_TAG_NOT_AVAILABLE;
    if (tag_exists(conn, job))
        return EAS_TAG_EXISTS;
    const EnergyTag tag = predict(coeffs, job);
    if (tag.available() == 0)
        return EAS_TAG_NOT_AVAILABLE;

    failure = EAS_STORE_FAILED;
    return load_etag_into_db(conn.get(), tag) == 0 ? EAS_OK : EAS_STORE_FAILED;
}

// --- eas_query_tag, eas_remove_tag --------------------------------------------------------------

/// Records on their way to the scheduler: zeroed at first, so that they can be freed at any time.
class TagRecords {
  public:
    explicit TagRecords(int count)
        : records_(static_cast<energyPolicyTag_t*>(
              std::calloc(static_cast<std::size_t>(count), sizeof(energyPolicyTag_t)))),
          count_(records_ != nullptr ? count : 0) {}
    ~TagRecords() {
        free_tag_struct(records_, count_);
        std::free(records_);
    }
    TagRecords(const TagRecords&) = delete;
    TagRecords& operator=(const TagRecords&) = delete;

    /// Empties each tag once its record stands: both are in memory for one tag only, not for all.
    [[nodiscard]] bool fill(std::vector<EnergyTag>& tags) {
        if (records_ == nullptr) {
            eas_debug_printf(debug_fd, "eas_query_tag: Space allocation failed.\n");
            return false;
        }
        for (std::size_t i = 0; i < tags.size(); ++i) {
            const EnergyTag tag = std::move(tags[i]);
            if (fill_tag_struct(tag, records_ + i) != 0)
                return false;
        }
        return true;
    }
    [[nodiscard]] energyPolicyTag_t* release() {
        count_ = 0;
        return std::exchange(records_, nullptr);
    }

  private:
    energyPolicyTag_t* records_;
    int count_;
};

int query(const char* cluster_name, int default_frequency, const char* user_name,
          const char* tag_name, int& num_tags, energyPolicyTag_t*& tags, int& failure) {
    eas::open_debug_log_if_wanted();
    eas::OwnedConnection conn = open_connection();
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_QUERY_FAILED;
    std::vector<EnergyTag> found;
    const int count = read_tags_from_db(conn.get(), cluster_name, default_frequency,
                                        or_empty(user_name), or_empty(tag_name), found);
    eas::end_read(*conn);
    conn.reset();
    if (count <= 0)
        return count < 0 ? EAS_QUERY_FAILED : EAS_OK;

    TagRecords records(count);
    if (!records.fill(found))
        return EAS_QUERY_FAILED;
    num_tags = count;
    tags = records.release();
    return EAS_OK;
}

int remove(const char* cluster_name, int default_frequency, const char* user_name,
           const char* tag_name, int& tag_count, char**& user_list, char**& tagname_list,
           int& failure) {
    const eas::OwnedConnection conn = open_connection();
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_REMOVE_FAILED;
    tag_count = 0;
    const int count =
        remove_tags_from_db(conn.get(), cluster_name, default_frequency, or_empty(user_name),
                            or_empty(tag_name), user_list, tagname_list);
    if (count < 0)
        return EAS_REMOVE_FAILED;
    tag_count = count;
    return EAS_OK;
}

// --- eas_auto_select_frequency ------------------------------------------------------------------

bool is_policy(std::string_view policy) {
    return policy == eas::minimize_time || policy == eas::minimize_energy;
}

int select_frequency(const char* cluster_name, int default_frequency, const char* user_name,
                     const char* tag_name, const char* energy_policy, int& selected_frequency,
                     double& time_var, int& failure) {
    eas::OwnedConnection conn = open_connection();
    if (!conn)
        return EAS_NO_CONNECTION;

    failure = EAS_NO_UNIQUE_TAG;
    std::vector<EnergyTag> found;
    const int count =
        read_tags_from_db(conn.get(), cluster_name, default_frequency, user_name, tag_name, found);
    eas::end_read(*conn);
    conn.reset();
    if (count != 1 || found.front().available() == 0)
        return EAS_NO_UNIQUE_TAG;
    selectedFrequencyPolicy(found.front(), energy_policy, selected_frequency, time_var);
    return EAS_OK;
}

}  // namespace

int eas_initialize(char* cluster_name, int default_frequency, char* threshold_file) {
    return eas::initialize(nullptr, cluster_name, default_frequency, threshold_file);
}

int eas::initialize(const char* dsn, const char* cluster_name, int default_frequency,
                    const char* threshold_file) {
    const eas::DeferCancellation until_done;
    const eas::CallInProgress call;
    if (!call.admitted())
        return EAS_NO_CONNECTION;  // the driver manager is gone for good
    uninitialize();
    if (cluster_name == nullptr || default_frequency < 1 || threshold_file == nullptr)
        return EAS_BAD_ARGUMENT;
    return without_exceptions(
        EAS_NO_CONNECTION,
        [&](int& failure) {
            return ::initialize(dsn, cluster_name, default_frequency, threshold_file, failure);
        },
        uninitialize);
}

int eas_generate_tag(char* cluster_name, int default_frequency, char* user_name, char* tag_name,
                     double* hw_counters, char* job_id, int time_elapsed, double power_consumed) {
    const Job job{cluster_name, default_frequency, user_name,     tag_name, hw_counters,
                  job_id,       time_elapsed,      power_consumed};
    if (!job.is_valid())
        return EAS_BAD_ARGUMENT;
    return at_the_boundary(global_coeffs, EAS_TAG_NOT_AVAILABLE,
                           [&](int& failure) { return generate(job, failure); });
}

int eas_query_tag(char* cluster_name, int default_frequency, char* user_name, char* tag_name,
                  int* num_tags, energyPolicyTag_t** tags) {
    if (default_frequency < 1 || cluster_name == nullptr || num_tags == nullptr || tags == nullptr)
        return EAS_BAD_ARGUMENT;
    *num_tags = 0;
    *tags = nullptr;
    return at_the_boundary(global_threshold, EAS_NO_CONNECTION, [&](int& failure) {
        return query(cluster_name, default_frequency, user_name, tag_name, *num_tags, *tags,
                     failure);
    });
}

int eas_remove_tag(char* cluster_name, int default_frequency, char* user_name, char* tag_name,
                   int* tag_count, char*** user_list, char*** tagname_list) {
    if (default_frequency < 1 || cluster_name == nullptr || tag_count == nullptr ||
        user_list == nullptr || tagname_list == nullptr)
        return EAS_BAD_ARGUMENT;
    return at_the_boundary(global_threshold, EAS_NO_CONNECTION, [&](int& failure) {
        return remove(cluster_name, default_frequency, user_name, tag_name, *tag_count, *user_list,
                      *tagname_list, failure);
    });
}

int eas_auto_select_frequency(char* cluster_name, int default_frequency, char* user_name,
                              char* tag_name, char* energy_policy, int* selected_frequency,
                              double* time_var) {
    if (default_frequency < 1 || cluster_name == nullptr || user_name == nullptr ||
        tag_name == nullptr || energy_policy == nullptr || selected_frequency == nullptr ||
        time_var == nullptr || !is_policy(energy_policy))
        return EAS_BAD_ARGUMENT;
    return at_the_boundary(global_threshold, EAS_NO_CONNECTION, [&](int& failure) {
        return select_frequency(cluster_name, default_frequency, user_name, tag_name, energy_policy,
                                *selected_frequency, *time_var, failure);
    });
}
