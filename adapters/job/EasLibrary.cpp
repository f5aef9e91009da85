#include "adapters/job/EasLibrary.h"

#include <dlfcn.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>

namespace eas::job {
namespace {

void* open_library(const std::string& name) {
    void* library = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        throw std::runtime_error(::dlerror());
    return library;
}

template <typename Function>
void find(void* library, const char* name, Function*& function) {
    function = reinterpret_cast<Function*>(::dlsym(library, name));
    if (function == nullptr)
        throw std::runtime_error("the library has no " + std::string(name));
}

/// Text of a code 0, -1, -2, ...
template <size_t size>
std::string text_of(const char* const (&texts)[size], int code) {
    const auto index = static_cast<size_t>(-code);
    return code < 0 && index < size ? texts[index] : "code " + std::to_string(code);
}

constexpr const char* initialize_texts[] = {
    "",
    "the cluster or the default frequency is not given",
    "no connection to the database",
    "no coefficients for this cluster and default frequency",
    "the threshold file is not valid",
    "the threshold file is missing or has no entry"};
constexpr const char* generate_texts[] = {"",
                                          "a figure is out of range",
                                          "no connection to the database",
                                          "not initialised",
                                          "the figures allow no prediction",
                                          "the database refused it",
                                          "there is one of that name already"};
constexpr const char* select_texts[] = {"", "the request is out of range",
                                        "no connection to the database", "not initialised",
                                        "there is no such tag"};
constexpr const char* query_texts[] = {"", "the request is out of range",
                                       "no connection to the database", "not initialised",
                                       "the database does not tell it"};

/// The library reads names that are stored as printf does.
std::string with_percents_doubled(const std::string& name) {
    std::string doubled;
    for (const char c : name)
        doubled.append(c == '%' ? 2 : 1, c);
    return doubled;
}

/// Owner of what a query hands out.
struct Tags {
    int count = 0;
    energyPolicyTag_t* tags = nullptr;

    Tags() = default;
    Tags(const Tags&) = delete;
    Tags& operator=(const Tags&) = delete;
    ~Tags() {
        for (int i = 0; i < count; ++i)
            release(tags[i]);
        std::free(tags);
    }

  private:
    static void release(const energyPolicyTag_t& tag) {
        for (char* text : {tag.energy_tag_name, tag.job_id, tag.user_name, tag.cluster_name})
            std::free(text);
        std::free(tag.frequencies);
        std::free(tag.predict_power);
        std::free(tag.energy_saving_pct);
        std::free(tag.predict_elapse_time);
        std::free(tag.perf_degrad_pct);
    }
};

std::optional<EasLibrary::Prediction> prediction(const energyPolicyTag_t& tag, int frequency) {
    for (int i = 0; i < tag.num_freq; ++i)
        if (tag.frequencies[i] == frequency)
            return EasLibrary::Prediction{tag.predict_power[i],
                                          static_cast<double>(tag.predict_elapse_time[i])};
    return std::nullopt;
}

}  // namespace

void set_up_environment(const SiteSettings& settings) {
    const char* given = std::getenv("SLURM_CONF");
    const std::string slurm_conf = given != nullptr ? given : "";
    ::clearenv();
    if (!slurm_conf.empty())  // for questions to the controller
        ::setenv("SLURM_CONF", slurm_conf.c_str(), 1);
    ::setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    ::setenv("HOME", "/root", 1);
    ::setenv("ABORT_ON_DB_FAILED", "NO", 1);  // a busy database is told of, not died of
    // Given always: else the driver manager looks into root's home first.
    ::setenv("ODBCINI", settings.odbcini.c_str(), 1);
    ::setenv("ODBCSYSINI", settings.odbcsysini.c_str(), 1);
}

EasLibrary::EasLibrary(const SiteSettings& settings)
    : cluster_(settings.cluster), default_frequency_(settings.default_frequency) {
    set_up_environment(settings);
    void* library = open_library(settings.library);
    find(library, "eas_initialize", initialize_);
    find(library, "eas_generate_tag", generate_);
    find(library, "eas_auto_select_frequency", select_);
    find(library, "eas_query_tag", query_);
    std::string thresholds = settings.thresholds;
    const int code = initialize_(cluster_.data(), default_frequency_, thresholds.data());
    if (code != EAS_OK)
        throw std::runtime_error(text_of(initialize_texts, code));
}

std::optional<EasLibrary::Choice> EasLibrary::select(std::string user, std::string tag,
                                                     std::string policy) const {
    std::string cluster = cluster_;
    Choice choice;
    const int code = select_(cluster.data(), default_frequency_, user.data(), tag.data(),
                             policy.data(), &choice.frequency, &choice.change);
    if (code == EAS_NO_UNIQUE_TAG)
        return std::nullopt;
    if (code != EAS_OK)
        throw std::runtime_error(text_of(select_texts, code));
    return choice;
}

std::optional<EasLibrary::Tag> EasLibrary::query(std::string user, std::string tag,
                                                 int frequency) const {
    std::string cluster = cluster_;
    Tags found;
    const int code = query_(cluster.data(), default_frequency_, user.data(), tag.data(),
                            &found.count, &found.tags);
    if (code != EAS_OK)
        throw std::runtime_error(text_of(query_texts, code));
    if (found.count != 1)
        return std::nullopt;
    const energyPolicyTag_t& only = found.tags[0];
    return Tag{only.job_id != nullptr ? only.job_id : "", prediction(only, frequency),
               prediction(only, default_frequency_)};
}

/// Whose tag there is, in words; empty: nobody's.
std::string EasLibrary::other_job(const std::string& user, const std::string& tag) const {
    const std::optional<Tag> there = query(user, tag, default_frequency_);
    return there ? "there is one of that name already, of job " + there->job : "";
}

void EasLibrary::generate(std::string user, std::string tag, std::string job,
                          const Measurement& measured) const {
    std::string cluster = with_percents_doubled(cluster_), owner = with_percents_doubled(user);
    double counters[] = {measured.counters[0], measured.counters[1], measured.counters[2]};
    const int code =
        generate_(cluster.data(), default_frequency_, owner.data(), tag.data(), counters,
                  job.data(), static_cast<int>(std::lround(measured.seconds)), measured.watts);
    if (code == EAS_TAG_EXISTS || code == EAS_STORE_FAILED)
        if (const std::string other = other_job(user, tag); !other.empty())
            throw std::runtime_error(other);
    if (code != EAS_OK)
        throw std::runtime_error(text_of(generate_texts, code));
    const std::optional<Tag> there = query(user, tag, default_frequency_);
    if (!there)
        throw std::runtime_error("the database did not keep it");
    if (there->job != job)
        throw std::runtime_error("there is one of that name already, of job " + there->job);
}

NodeLibrary::NodeLibrary(const std::string& name) {
    void* library = open_library(name);
    find(library, "easnode_meter_open", meter_open);
    find(library, "easnode_meter_read", meter_read);
    find(library, "easnode_meter_close", meter_close);
    find(library, "easnode_frequency_open", frequency_open);
    find(library, "easnode_frequency_close", frequency_close);
    find(library, "easnode_frequency_save", frequency_save);
    find(library, "easnode_frequency_set", frequency_set);
    find(library, "easnode_frequency_restore", frequency_restore);
    find(library, "easnode_error_text", error_text);
}

}  // namespace eas::job
