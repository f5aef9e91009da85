// EnergyUtil.h - processor frequencies, governors and model fitting on a compute node (C++17).
//
// Frequencies are kHz, as the kernel's cpufreq files have them; CPUs are the kernel's logical
// numbers. Every method returns 1 or the positive value asked for on success and -1 on failure;
// nothing is printed or thrown. Writing needs root (cpufreq files), the nominal frequency root and
// the "msr" kernel module; the caller holds the privileges. Methods that touch different CPUs may
// run in different threads; the two cached values are plain integers.
#ifndef EAS_ENERGY_UTIL_H
#define EAS_ENERGY_UTIL_H

#include <vector>

#ifndef EAS_API
#if defined(__GNUC__)
#define EAS_API __attribute__((visibility("default")))
#else
#define EAS_API
#endif
#endif

/// Directory of the kernel's per-CPU cpufreq files.
constexpr const char* CPU_FREQENCY_PATH = "/sys/devices/system/cpu";
/// The kernel's list of processors (proc(5)).
constexpr const char* PROC_CPUINFO_PATH = "/proc/cpuinfo";
/// Directory of the model-specific register devices (msr(4)).
constexpr const char* CPU_MSR_PATH = "/dev/cpu";
/// Size of the text buffer for a frequency, terminator included.
constexpr int MAX_FREQENCY_LENGTH = 10;
/// Size of a path buffer, terminator included.
constexpr int MAX_PATH_LENGTH = 255;

/// Which limit of a CPU's frequency range is meant.
enum CPUFreqCapType {
    CPU_FREQ_MIN = 0,  ///< the lowest frequency that the governor may choose
    CPU_FREQ_MAX = 1   ///< the highest one
};

class EAS_API EnergyUtil {
  public:
    /// Nominal frequency once get_nominal_freq found it, kHz; 0 or less: not yet known.
    static int nominal_frequency;
    /// Hardware threads of the node once get_node_threads counted them; 0 or less: not yet known.
    static int cpu_threads_num;
    /// Samples that a fit is made of.
    static constexpr int COEFNUM = 7;

    /// Present frequency of a CPU (cpufreq's scaling_cur_freq), or -1.
    static int get_current_frequency(int cpuid);

    /// Fixes a CPU's frequency: switches its governor to "userspace" unless that is set already,
    /// then writes scaling_setspeed. -1 for a value of 0 or less or of ten digits (nothing is
    /// touched then), or when a file cannot be read or written; the governor may then have changed.
    static int set_cpu_frequency(int freqval, int cpuid);

    /// Sets a CPU's governor. A name that is the beginning of the present one counts as set.
    /// -1 for a null name or when the file cannot be read or written.
    static int set_cpu_governor(char* governor, int cpuid);

    /// Limits a CPU's frequency range from below or above; the governor is not touched.
    /// -1 for a value of 0 or less or of ten digits, an unknown type or a failed write.
    static int set_cpu_frequency_cap(int freqval, int cpuid, CPUFreqCapType type);

    /// set_cpu_frequency on every CPU, in the order of /proc/cpuinfo, whichever of them fail.
    /// 1 when all succeeded, else -1: those that succeeded stay changed.
    static int set_all_cpu_freqs(int freqval);
    /// set_cpu_governor on every CPU; as set_all_cpu_freqs.
    static int set_all_cpu_governors(char* governor);
    /// set_cpu_frequency_cap on every CPU; as set_all_cpu_freqs.
    static int set_all_cpu_freqs_cap(int freqval, CPUFreqCapType type);

    /// Appends the number of every processor of /proc/cpuinfo, in its order.
    /// 1 when `cpuids` then holds something (also from before), else -1.
    static int get_all_cpu_ids(std::vector<int>& cpuids);

    /// Appends a CPU's available frequencies, in the order of the kernel's list (highest first).
    /// 1 when `freqs` then holds something (also from before), else -1.
    static int get_available_freqs(std::vector<int>& freqs, int cpuid);

    /// Highest frequency without turbo, from bits 15:8 of the platform-information register
    /// (MSR 0xCE, processor vendor's software developer manual) times 133330 kHz on every model: on
    /// models 42, 45 and 62, whose bus clock is 100 MHz, the result is a third too high.
    /// -1 when the register cannot be read or holds 0.
    static int cal_nominal_freq(int cpuid);

    /// cal_nominal_freq, moved to the nearest available frequency (the first of equally near ones;
    /// as it is when there is no list). Computed once per process. -1 when it cannot be computed.
    static int get_nominal_freq(int cpuid);

    /// Hardware threads of the node: the threads per core of CPU `cpuid`, times its cores per
    /// socket, times the sockets, from /proc/cpuinfo. Counted once per process. -1 when the file
    /// does not tell ("cpu cores" missing or 0).
    static int get_node_threads(int cpuid);

    /// Fits Y = b0 + b1 X1 + b2 X2 by ordinary least squares to the first COEFNUM elements of the
    /// three vectors and appends b1, b2, b0, in this order, to `res`.
    /// Returns 1, also when the points are collinear (the values are then not finite); -1 with
    /// nothing appended when an input has fewer than COEFNUM elements or memory is out.
    static int cal_coefficients(const std::vector<double>& Y, const std::vector<double>& X1,
                                const std::vector<double>& X2, std::vector<double>& res);
};

#endif  // EAS_ENERGY_UTIL_H
