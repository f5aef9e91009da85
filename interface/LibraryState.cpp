#include "interface/LibraryState.h"

#include <string_view>
#include <utility>

#include "base/DebugFile.h"
#include "base/FatalAssertion.h"
#include "base/ThreadSafety.h"
#include "base/UniqueFd.h"
#include "common/model/CoEfficients.h"
#include "common/model/EnergyPerfThreshold.h"
#include "db/base_class/DBConnection.h"
#include "db/base_class/DBLibrary.h"
#include "db/base_class/DBTracer.h"

// Plain pointers, so that nothing has to run for them when the library is loaded.
CoEfficients* global_coeffs = nullptr;
EnergyPerfThreshold* global_threshold = nullptr;
std::atomic<int> debug_fd{-1};

namespace {

constexpr const char* debug_log_path = "/tmp/.eas_lib_debug";

eas::Mutex debug_mutex;  // guards the one-time opening of the debug log

constexpr int no_more_calls = -1;
std::atomic<int> calls{0};  // in progress, or no_more_calls

/// When the library is unloaded, or the process ends, nothing of it stays behind. Where a thread is
/// in a call all of it stays: that call goes on until the process is gone.
[[gnu::destructor]] void discard_library_state() {
    int none = 0;
    if (!calls.compare_exchange_strong(none, no_more_calls))
        return;
    eas::set_global_threshold(nullptr);
    eas::set_global_coeffs(nullptr);
    DBLibrary::release();
    DBConnection::clearDBinfo();
    // The name under which it writes to the system log lies in its own memory.
    dbtrace_config(-1);
    eas::UniqueFd(debug_fd.exchange(-1)).reset();
}

}  // namespace

void eas_debug_printf(int fd, const std::string& msg) {
    eas::print_debug_text(fd, msg.c_str());
}

namespace eas {

void print_debug_text(int fd, const char* text) {
    constexpr std::size_t longest = 1023;
    if (debug_output_wanted())
        write_debug_text(fd, std::string_view(text).substr(0, longest));
}

CallInProgress::CallInProgress() noexcept {
    int others = calls;
    do
        admitted_ = others != no_more_calls;
    while (admitted_ && !calls.compare_exchange_weak(others, others + 1));
}

CallInProgress::~CallInProgress() {
    if (admitted_)
        --calls;
}

void set_global_coeffs(std::unique_ptr<CoEfficients> coeffs) noexcept {
    const std::unique_ptr<CoEfficients> old(std::exchange(global_coeffs, coeffs.release()));
}

void set_global_threshold(std::unique_ptr<EnergyPerfThreshold> threshold) noexcept {
    const std::unique_ptr<EnergyPerfThreshold> old(
        std::exchange(global_threshold, threshold.release()));
}

void open_debug_log_if_wanted() {
    if (!debug_output_wanted())
        return;
    const MutexLock lock(debug_mutex);
    if (debug_fd >= 0)
        return;
    UniqueFd file;
    // Opening it is what the assertion is about: a log that was asked for must be there.
    require_or_abort((file = open_debug_file(debug_log_path)).get() > 0, "debug_fd > 0");
    // Last comes what says that it is done: without memory for the trace the next query tries
    // again.
    dbtrace_config(file.get());
    debug_fd = file.release();
}

}  // namespace eas
