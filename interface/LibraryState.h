// What the five scheduler functions share: the loaded model, the thresholds, fixed names, the debug
// log. eas_initialize replaces the model while no other call runs; nothing here locks for it.
//
// All of it is given back when the library is unloaded or the process ends, but not from under a
// call: exit() does not wait for a daemon's other threads.
#pragma once

#include <atomic>
#include <memory>
#include <string>

class CoEfficients;
class EnergyPerfThreshold;

/// File name of the ODBC driver manager, resolved by the dynamic linker at run time.
inline constexpr const char* odbc_lib = "libodbc.so";
/// Data-source name used when the locator file names none.
inline constexpr const char* defdsn = "easdb";

/// The initialised cluster's coefficients, or null. Owned; replaced by set_global_coeffs.
extern CoEfficients* global_coeffs;
/// The site's thresholds, or null. Owned; replaced by set_global_threshold.
extern EnergyPerfThreshold* global_threshold;

/// Descriptor of the debug log, -1 until it is opened; it then stays open for the process's life.
extern std::atomic<int> debug_fd;

/// Writes `msg`, cut to 1023 characters, to `fd` when "DEBUG_THRESHOLD" is set. Errors are ignored.
void eas_debug_printf(int fd, const std::string& msg);

namespace eas {

/// Stands for one call of a scheduler function: while one lives, the library's state stays.
class CallInProgress {
  public:
    CallInProgress() noexcept;
    ~CallInProgress();
    CallInProgress(const CallInProgress&) = delete;
    CallInProgress& operator=(const CallInProgress&) = delete;

    /// False when the state has been given back: there is nothing left that a call may touch.
    [[nodiscard]] bool admitted() const noexcept { return admitted_; }

  private:
    bool admitted_;
};

/// eas_debug_printf for a text that needs no memory, such as one that says that there is none.
void print_debug_text(int fd, const char* text);
/// The same to the debug log.
inline void debug_log(const char* text) {
    print_debug_text(debug_fd, text);
}

/// Destroys what stood there before.
void set_global_coeffs(std::unique_ptr<CoEfficients> coeffs) noexcept;
void set_global_threshold(std::unique_ptr<EnergyPerfThreshold> threshold) noexcept;

/// With "DEBUG_THRESHOLD" set, opens the debug log once per process and hands it to the database
/// trace; a log that cannot be opened stops the process. Thread-safe.
void open_debug_log_if_wanted();

}  // namespace eas
