// EasLibrary.h - libeas, opened at run time: a job must start where the library is missing.
#pragma once

#include <eas/EasMisc.h>
#include <eas/EnergyUtil.h>
#include <eas/interface.h>

#include <string>

#include "adapters/slurm/PluginArguments.h"

namespace eas::slurm {

/// The functions that the plugin calls. The library stays open until the process ends, which is
/// always a child made for the purpose.
struct EasLibrary {
    /// Throws std::runtime_error with the loader's words.
    explicit EasLibrary(const std::string& name);

    decltype(&::eas_initialize) initialize = nullptr;
    decltype(&::eas_generate_tag) generate_tag = nullptr;
    decltype(&::eas_auto_select_frequency) select_frequency = nullptr;
    decltype(&::gethwrusage) hardware_usage = nullptr;
    decltype(&::getearusage) energy = nullptr;
    decltype(&EnergyUtil::get_all_cpu_ids) cpu_ids = nullptr;
    decltype(&EnergyUtil::set_cpu_frequency) set_frequency = nullptr;
};

/// The environment of the library: nothing that a user may have set, the data sources of the
/// administrator. For a child process.
void set_up_environment(const PluginArguments& arguments);

/// Initialises the library for the cluster; throws std::runtime_error that says what is wrong.
void initialize(const EasLibrary& library, const PluginArguments& arguments);

/// Node's energy counter and time, now; 0 uJ where there is no meter.
struct MeterReading;
MeterReading read_meter(const EasLibrary& library);

/// Why eas_generate_tag or eas_auto_select_frequency refused.
std::string generate_refusal(int code);
std::string select_refusal(int code);

}  // namespace eas::slurm
