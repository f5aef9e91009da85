#include "adapters/slurm/FrequencyGuard.h"

#include <fcntl.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace eas::slurm {
namespace {

std::string file_of(int cpu, const char* name) {
    return std::string(CPU_FREQENCY_PATH) + "/cpu" + std::to_string(cpu) + "/cpufreq/" + name;
}

/// The first word of one of a CPU's files; throws when there is none.
std::string read_word(int cpu, const char* name) {
    const std::string path = file_of(cpu, name);
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 64> text;
    const ssize_t got = file.is_open() ? ::read(file.get(), text.data(), text.size()) : -1;
    const std::string word(text.data(), got > 0 ? static_cast<size_t>(got) : 0);
    const size_t length = word.find_first_of(" \n");
    if (got <= 0 || length == 0)
        throw std::runtime_error("cannot read " + path);
    return word.substr(0, length);
}

bool write_word(int cpu, const char* name, const std::string& word) {
    const Descriptor file(::open(file_of(cpu, name).c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    return file.is_open() &&
           ::write(file.get(), word.data(), word.size()) == static_cast<ssize_t>(word.size());
}

/// What the CPU was last set to. Not scaling_cur_freq: that may be measured, and is never met
/// exactly.
long read_speed(int cpu) {
    return std::atol(read_word(cpu, "scaling_setspeed").c_str());
}

/// The kernel takes a frequency beyond scaling_max_freq or between two steps, and sets another one.
void set_frequency(const EasLibrary& library, int cpu, int frequency) {
    const std::string wanted = std::to_string(frequency) + " kHz";
    if (library.set_frequency(frequency, cpu) != 1)
        throw std::runtime_error("CPU " + std::to_string(cpu) + " refuses the frequency " + wanted);
    if (const long speed = read_speed(cpu); speed != frequency)
        throw std::runtime_error("CPU " + std::to_string(cpu) + " does not run at " + wanted +
                                 " but at " + std::to_string(speed) + " kHz");
}

bool restore_cpu(const CpuSetting& setting) {
    if (!write_word(setting.cpu, "scaling_governor", setting.governor))
        return false;
    return setting.speed <= 0 ||
           write_word(setting.cpu, "scaling_setspeed", std::to_string(setting.speed));
}

}  // namespace

std::vector<CpuSetting> read_settings(const EasLibrary& library) {
    std::vector<int> cpus;
    if (library.cpu_ids(cpus) != 1)
        throw std::runtime_error("the CPUs of this node cannot be listed");
    std::vector<CpuSetting> settings;
    for (const int cpu : cpus) {
        CpuSetting setting{cpu, read_word(cpu, "scaling_governor"), 0};
        // Under every other governor the kernel prints "<unsupported>" here.
        if (setting.governor == "userspace")
            setting.speed = read_speed(cpu);
        settings.push_back(setting);
    }
    return settings;
}

void apply_frequency(const EasLibrary& library, const std::vector<CpuSetting>& settings,
                     int frequency) {
    for (const CpuSetting& setting : settings)
        set_frequency(library, setting.cpu, frequency);
}

void give_up_frequency(const StateFolder& folder, const JobRecord& record, const std::string& why) {
    folder.append(record.request.job, line::disturbed(why));
    restore(record.settings);
    folder.append(record.request.job, line::given_back());
}

void restore(const std::vector<CpuSetting>& settings) {
    std::string refused;
    for (const CpuSetting& setting : settings)
        if (!restore_cpu(setting))
            refused += ' ' + std::to_string(setting.cpu);
    if (!refused.empty())
        throw std::runtime_error("the former frequency setting is refused by CPU" + refused);
}

}  // namespace eas::slurm
