// The end of the process while threads are inside the library: nothing of it is taken from under
// them.
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "tests/support/ChildProcess.h"
#include "tests/support/FaultyDriverManager/FaultyDriverManager.h"
#include "tests/support/SchedulerCalls.h"

// The race detector would sleep for a second at every exit.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "atexit_sleep_ms=0";
}

namespace {

using namespace eas::test;

class Exit : public SchedulerTest {};

INSTANTIATE_TEST_SUITE_P(On, Exit, both_engines(), engine_suffix);

const char* late_thresholds = nullptr;  // null: nobody calls late

/// Runs after the library has given its state back, as a thread may that exit() did not wait for.
[[gnu::destructor(101)]] void call_late() {
    if (late_thresholds == nullptr)
        return;
    const std::array codes{generate("anna", "t"), Tags("anna", "t").status,
                           select("anna", "t", "minimize_time").status,
                           remove_tags("anna", "t").status};
    for (const int code : codes) {
        if (code != EAS_NOT_INITIALIZED)
            ::_exit(1);
    }
    if (eas_initialize(text("c1"), default_frequency, text(late_thresholds)) != EAS_NO_CONNECTION)
        ::_exit(2);
}

std::atomic<int> crossings{0};  // of the driver manager's wall, in and out

/// A daemon that is told to stop while its threads work: when they have crossed so often.
[[noreturn]] void work_and_exit(int after) {
    for (const char* user : {"anna", "bert", "carl", "dora"})
        std::thread([user] {
            for (;;)
                call_all_on(user, "t");
        }).detach();
    while (crossings < after)
        std::this_thread::yield();
    std::exit(0);
}

TEST_P(Exit, IsSafeWhileThreadsAreInsideCalls) {
    FaultyDriverManager::load().on_crossing([](int) { ++crossings; });
    ASSERT_EQ(initialize(), EAS_OK);
    const bool soak = std::getenv("EAS_SOAK") != nullptr;
    crossings = 0;
    for (int after = 0; after < 500; after += soak ? 1 : 7) {
        const pid_t child = ::fork();
        if (child == 0)
            work_and_exit(after);
        ASSERT_EQ(exit_status(child), 0) << "after " << after << " crossings";
        ASSERT_EQ(tag_rows() % 4, 0) << "after " << after << " crossings";
    }
}

TEST_P(Exit, LeavesLateCallsNothingInitialised) {
    ASSERT_EQ(initialize(), EAS_OK);
    const pid_t child = ::fork();
    if (child == 0) {
        late_thresholds = threshold_file_.c_str();
        std::exit(0);
    }
    EXPECT_EQ(exit_status(child), 0);
}

}  // namespace
