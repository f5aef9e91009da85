#include "adapters/slurm/EasLibrary.h"

#include <dlfcn.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "adapters/slurm/JobRecord.h"

namespace eas::slurm {
namespace {

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
                                        "this user has no such tag"};

}  // namespace

EasLibrary::EasLibrary(const std::string& name) {
    void* library = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        throw std::runtime_error(::dlerror());
    find(library, "eas_initialize", initialize);
    find(library, "eas_generate_tag", generate_tag);
    find(library, "eas_auto_select_frequency", select_frequency);
    find(library, "gethwrusage", hardware_usage);
    find(library, "getearusage", energy);
    // Class members, by the names that the C++ ABI gives them.
    find(library, "_ZN10EnergyUtil15get_all_cpu_idsERSt6vectorIiSaIiEE", cpu_ids);
    find(library, "_ZN10EnergyUtil17set_cpu_frequencyEii", set_frequency);
}

void set_up_environment(const PluginArguments& arguments) {
    const char* given = std::getenv("SLURM_CONF");
    const std::string slurm_conf = given != nullptr ? given : "";
    ::clearenv();
    if (!slurm_conf.empty())  // for questions to the controller
        ::setenv("SLURM_CONF", slurm_conf.c_str(), 1);
    ::setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    ::setenv("HOME", "/root", 1);
    ::setenv("ABORT_ON_DB_FAILED", "NO", 1);  // a busy database is told of, not died of
    // Given always: else the driver manager looks into root's home first.
    ::setenv("ODBCINI", arguments.odbcini.c_str(), 1);
    ::setenv("ODBCSYSINI", arguments.odbcsysini.c_str(), 1);
}

void initialize(const EasLibrary& library, const PluginArguments& arguments) {
    std::string cluster = arguments.cluster;
    std::string thresholds = arguments.thresholds;
    const int code =
        library.initialize(cluster.data(), arguments.default_frequency, thresholds.data());
    if (code != EAS_OK)
        throw std::runtime_error(text_of(initialize_texts, code));
}

MeterReading read_meter(const EasLibrary& library) {
    enrusage usage{};
    timespec now{};
    library.energy(RUSAGE_SELF, &usage);
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return {now.tv_sec * int64_t{1000000000} + now.tv_nsec, usage.energy1_input};
}

std::string generate_refusal(int code) {
    return text_of(generate_texts, code);
}

std::string select_refusal(int code) {
    return text_of(select_texts, code);
}

}  // namespace eas::slurm
