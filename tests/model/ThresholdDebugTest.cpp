// The debug file of the threshold reader, in a private /tmp.
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "common/EnergyPerfThreshold.h"
#include "tests/model/ModelFixtures.h"

namespace {

constexpr const char* debug_file = "/tmp/.threshold_output";
constexpr const char* content =
    "Begin Min_Energy\nTHRESHOLD_RUNTIME_VAR = 5\nEnd Min_Energy\n"
    "Begin Min_Time\nCPU_FREQ RUNTIME_VAR\n2.0GHz -5\nEnd Min_Time\n";

void read_thresholds() {
    CoEfficients set = eas_test::make_set({1600000, 2000000}, 1600000);
    const eas::UniqueFile file = eas_test::file_of(content);
    EnergyPerfThreshold(&set, eas_test::path_of(file).c_str());
}

/// In a process that ends: with a /tmp of its own, and debug output asked for.
void enter_private_tmp() {
    const bool entered = ::unshare(CLONE_NEWNS) == 0 &&
                         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         ::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0;
    if (!entered)
        ::_exit(2);
    ::unsetenv("DEBUG_THRESHOLD");
    read_thresholds();
    if (::access(debug_file, F_OK) == 0)
        ::_exit(3);
    ::setenv("DEBUG_THRESHOLD", "", 1);
}

TEST(ThresholdDebugFile, AppendsEachReading) {
    const auto run = [] {
        enter_private_tmp();
        EnergyPerfThreshold().displayThresholds();
        read_thresholds();
        std::stringstream text;
        text << std::ifstream(debug_file).rdbuf();
        ::_exit(text.str() ==
                        "This threshold is not valid.\n"
                        "This threshold is valid.\n"
                        "The performance threshold: 5.000000\n"
                        "Frequency = 1600000, threshold value defined = 0.000000\n"
                        "Frequency = 2000000, threshold value defined = -0.050000\n"
                    ? 0
                    : 4);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
