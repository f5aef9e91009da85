// The debug files and the locator file at their places, in a private mount namespace.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/DebugFile.h"
#include "common/model/EnergyPerfThreshold.h"
#include "common/model/EnergyTag.h"
#include "gmock/gmock.h"
#include "interface/LibraryState.h"
#include "interface/Locator.h"
#include "interface/TagRecord.h"
#include "tests/support/OwnTmp.h"
#include "tests/support/SchedulerCalls.h"

namespace {

const char* log_name = nullptr;  // under which the process writes to the system log

}  // namespace

// In place of the system's, also for a library that is opened later.
extern "C" __attribute__((visibility("default"))) void openlog(const char* name, int, int) {
    log_name = name;
}
extern "C" __attribute__((visibility("default"))) void closelog() {
    log_name = nullptr;
}

namespace {

using namespace eas::test;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* debug_log = "/tmp/.eas_lib_debug";
constexpr const char* threshold_output = "/tmp/.threshold_output";

/// /tmp and /etc are this process's own.
class InPrivateNamespace : public SchedulerTest {
  protected:
    void SetUp() override {
        if (!own_tmp())
            GTEST_SKIP() << "a private mount namespace needs CAP_SYS_ADMIN";
        ::mkdir("/tmp/upper", 0755);
        ::mkdir("/tmp/work", 0755);
        ASSERT_EQ(::mount("overlay", "/etc", "overlay", 0,
                          "lowerdir=/etc,upperdir=/tmp/upper,workdir=/tmp/work"),
                  0);
        SchedulerTest::SetUp();
    }
};

INSTANTIATE_TEST_SUITE_P(On, InPrivateNamespace, ::testing::Values(Engine::sqlite), engine_suffix);

TEST_P(InPrivateNamespace, TheDebugLogBeginsWithTheFirstQueryThatIsAskedToLog) {
    ::unsetenv("DEBUG_THRESHOLD");
    ASSERT_EQ(initialize(), EAS_OK);
    ASSERT_EQ(Tags(nullptr, "quiet").status, EAS_OK);
    eas_debug_printf(debug_fd, "nowhere\n");
    EXPECT_NE(::access(debug_log, F_OK), 0);

    ::setenv("DEBUG_THRESHOLD", "", 1);
    ASSERT_EQ(initialize(), EAS_OK);
    EXPECT_NE(::access(debug_log, F_OK), 0);  // only a query opens it
    ::umask(027);
    ASSERT_EQ(Tags(nullptr, "loud").status, EAS_OK);
    EXPECT_EQ(std::filesystem::status(debug_log).permissions(), std::filesystem::perms(0750));
    const int opened = debug_fd;
    ASSERT_EQ(Tags(nullptr, "a\"b").status, EAS_QUERY_FAILED);
    EXPECT_EQ(opened, debug_fd);
    EXPECT_EQ(fill_tag_struct(EnergyTag(), nullptr), -1);
    eas_debug_printf(debug_fd, std::string(2000, 'x'));

    const std::string log = read_file(debug_log);
    EXPECT_THAT(log, Not(HasSubstr("quiet")));
    EXPECT_THAT(log, HasSubstr("The SQL condition:  where cluster_name=\"c1\" and "
                               "default_frequency=2000000 and energy_tag_name=\"loud\"\n"));
    EXPECT_THAT(log, HasSubstr("Failed to query energy tags from DB.\n"));
    EXPECT_THAT(log, HasSubstr("\n\nNULL tag structure pointer or unavailable tag object.\nxxx"));
    // The database layer's records stand in the same file, each followed by an empty line.
    EXPECT_THAT(log, ContainsRegex("[A-Z][a-z]+ [ 0-9]+ [0-9:]+ \\(D\\) \\[[0-9]+\\]\t"
                                   "Connected to the database: easdb\n\n"));
    EXPECT_THAT(log,
                HasSubstr("Successfully executed: select * from TQVN_EnergyPolicyTag  where "));
    EXPECT_EQ(log.size() - log.find(std::string(1023, 'x')), 1023U);
}

TEST_P(InPrivateNamespace, TheThresholdFileGetsEachReadingThatIsAskedFor) {
    ::unsetenv("DEBUG_THRESHOLD");
    ASSERT_EQ(initialize(), EAS_OK);
    EXPECT_NE(::access(threshold_output, F_OK), 0);
    ::setenv("DEBUG_THRESHOLD", "", 1);
    EnergyPerfThreshold().displayThresholds();
    ASSERT_EQ(initialize(), EAS_OK);
    EXPECT_EQ(read_file(threshold_output),
              "This threshold is not valid.\n"
              "This threshold is valid.\n"
              "The performance threshold: 5.000000\n"
              "Frequency = 2000000, threshold value defined = 0.000000\n"
              "Frequency = 2400000, threshold value defined = -0.150000\n");
}

TEST_P(InPrivateNamespace, ADebugFileWithSomethingElseInItsPlaceStopsTheProcess) {
    constexpr const char* elsewhere = "/tmp/elsewhere";
    std::ofstream{elsewhere};
    int (*const plants[])(const char*) = {
        [](const char* path) { return ::symlink(elsewhere, path); },
        [](const char* path) { return ::link(elsewhere, path); },
        [](const char* path) { return ::mkfifo(path, 0666); },
        [](const char* path) { return ::mkdir(path, 0700); },
    };
    ASSERT_EQ(initialize(), EAS_OK);
    ::setenv("DEBUG_THRESHOLD", "1", 1);
    for (const char* const path : {debug_log, threshold_output}) {
        for (const auto plant : plants) {
            ASSERT_EQ(plant(path), 0);
            const auto use = [&] {
                if (path == threshold_output)
                    (void)initialize();
                Tags(nullptr, "t");
                ::_exit(0);
            };
            EXPECT_EXIT(use(), ::testing::KilledBySignal(SIGABRT),
                        "^libeas: [^:]*[.]cpp:[0-9]+: assertion `(debug_fd > 0|the threshold debug "
                        "file opens)' failed\n$");
            ASSERT_EQ(std::remove(path), 0);
        }
    }
    EXPECT_EQ(read_file(elsewhere), "");
}

TEST_P(InPrivateNamespace, AnUnloadedLibraryLeavesNoDescriptorAndNoNameInTheSystemLog) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    ::setenv("DEBUG_THRESHOLD", "1", 1);
    const auto before = descriptors();
    void* library = ::dlopen(EAS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << ::dlerror();
    const auto initialize_it =
        reinterpret_cast<decltype(&eas_initialize)>(::dlsym(library, "eas_initialize"));
    const auto query_it =
        reinterpret_cast<decltype(&eas_query_tag)>(::dlsym(library, "eas_query_tag"));
    ASSERT_EQ(initialize_it(text("c1"), default_frequency, text(threshold_file_)), EAS_OK);
    int count = 0;
    energyPolicyTag_t* tags = nullptr;
    ASSERT_EQ(query_it(text("c1"), default_frequency, nullptr, nullptr, &count, &tags), EAS_OK);
    EXPECT_THAT(read_file(debug_log), HasSubstr("Successfully executed"));
    EXPECT_STREQ(log_name, "_DB");
    ::dlclose(library);
    ASSERT_EQ(::dlopen(EAS_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(log_name, nullptr);
}

TEST_P(InPrivateNamespace, TheLocatorFileNamesTheDataSource) {
    const auto locate = [](const std::string& line) {
        std::ofstream(cfgloc) << line;
        return get_dsn();
    };
    ::unlink(cfgloc);
    EXPECT_EQ(get_dsn(), "");
    ::mkdir("/etc/zemra", 0755);
    EXPECT_EQ(locate("mysql:dbname=nosuchdsn\n"), "nosuchdsn");
    EXPECT_EQ(initialize(), EAS_NO_CONNECTION);
    EXPECT_EQ(locate("nonsense\n"), "");
    EXPECT_EQ(initialize(), EAS_OK);  // by the default name
    ASSERT_EQ(::unlink(cfgloc), 0);
    ASSERT_EQ(::mkdir(cfgloc, 0755), 0);
    EXPECT_EQ(get_dsn(), "");
}

}  // namespace
