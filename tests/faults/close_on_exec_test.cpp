// A program that the host starts inherits no descriptor of either library: every call that opens
// one says so. The opening functions of this program's own objects, the libraries' among them, are
// those here.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/perf_event.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>

#include "base/DebugFile.h"
#include "common/node/EasMisc.h"
#include "common/node/EnergyUtil.h"
#include "db/base_class/Properties.h"
#include "node/node.h"
#include "tests/node/NodeTest.h"
#include "tests/node/SmallNode.h"

extern "C" char __executable_start;
extern "C" char etext;

namespace {

bool noting = false;
std::map<std::string, bool> opened;  // what, and whether it was closed on exec each time

void note(const char* what, bool closed_on_exec, const void* caller) {
    const auto* const at = static_cast<const char*>(caller);
    if (!noting || at < &__executable_start || at > &etext)
        return;  // the C library answers for itself
    noting = false;
    const auto place = opened.insert({what, true}).first;
    place->second = place->second && closed_on_exec;
    noting = true;
}

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    note(path, (flags & O_CLOEXEC) != 0, __builtin_return_address(0));
    return real<int(const char*, int, ...)>("open")(path, flags, mode);
}
extern "C" int __open_2(const char* path, int flags) {
    note(path, (flags & O_CLOEXEC) != 0, __builtin_return_address(0));
    return real<int(const char*, int)>("__open_2")(path, flags);
}
extern "C" int openat(int folder, const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, mode_t);
    va_end(arguments);
    note(path, (flags & O_CLOEXEC) != 0, __builtin_return_address(0));
    return real<int(int, const char*, int, ...)>("openat")(folder, path, flags, mode);
}
extern "C" std::FILE* fopen(const char* path, const char* mode) {
    note(path, std::strchr(mode, 'e') != nullptr, __builtin_return_address(0));
    return real<std::FILE*(const char*, const char*)>("fopen")(path, mode);
}
extern "C" int pipe(int* ends) noexcept {
    note("pipe", false, __builtin_return_address(0));
    return real<int(int*)>("pipe")(ends);
}
extern "C" int pipe2(int* ends, int flags) noexcept {
    note("pipe", (flags & O_CLOEXEC) != 0, __builtin_return_address(0));
    return real<int(int*, int)>("pipe2")(ends, flags);
}
extern "C" int dup(int fd) noexcept {
    note("dup", false, __builtin_return_address(0));
    return real<int(int)>("dup")(fd);
}
extern "C" int socket(int domain, int type, int protocol) noexcept {
    note("socket", (type & SOCK_CLOEXEC) != 0, __builtin_return_address(0));
    return real<int(int, int, int)>("socket")(domain, type, protocol);
}
extern "C" int memfd_create(const char* name, unsigned flags) noexcept {
    note("memfd", (flags & MFD_CLOEXEC) != 0, __builtin_return_address(0));
    return real<int(const char*, unsigned)>("memfd_create")(name, flags);
}
extern "C" int fcntl(int fd, int command, ...) {
    std::va_list arguments;
    va_start(arguments, command);
    const auto word = va_arg(arguments, long);
    va_end(arguments);
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC)
        note("moved up", command == F_DUPFD_CLOEXEC, __builtin_return_address(0));
    if (command == F_SETFD && (word & FD_CLOEXEC) != 0)
        note("set later", true, __builtin_return_address(0));
    return real<int(int, int, ...)>("fcntl")(fd, command, word);
}
extern "C" long syscall(long number, ...) noexcept {
    long words[6];
    std::va_list arguments;
    va_start(arguments, number);
    for (long& word : words)
        word = va_arg(arguments, long);
    va_end(arguments);
    if (number == SYS_perf_event_open) {
        // Those of gethwrusage have no flags by their definition, and get the mark later.
        const bool given = reinterpret_cast<const perf_event_attr*>(words[0])->size == 80;
        note(given ? "event of gethwrusage" : "event",
             given || (static_cast<unsigned long>(words[4]) & PERF_FLAG_FD_CLOEXEC) != 0,
             __builtin_return_address(0));
    }
    return real<long(long, ...)>("syscall")(number, words[0], words[1], words[2], words[3],
                                            words[4], words[5]);
}

namespace eas::test {
namespace {

using CloseOnExec = NodeTest;

void sample_and_set_as_given() {
    hwrusage usage{};
    enrusage energy{};
    gethwrusage(1001, &usage);
    gethwrusage(0, nullptr);
    getenrusage(RUSAGE_SELF, &energy);
    EnergyUtil::get_nominal_freq(0);
    EnergyUtil::set_cpu_frequency(1600000, 3);
}

void measure_and_set() {
    const char* const command[] = {"/bin/echo", "5", nullptr};
    easnode_meter_options options{};
    options.size = sizeof options;
    options.command = command;
    easnode_reading reading{};
    reading.size = sizeof reading;
    for (const char* memory : {static_cast<const char*>(nullptr), "resctrl", "registers"}) {
        easnode_meter* meter = nullptr;
        options.memory_sources = memory;
        EXPECT_EQ(EASNODE_OK, easnode_meter_open(&options, &meter));
        EXPECT_EQ(EASNODE_OK, easnode_meter_read(meter, &reading));
        easnode_meter_close(meter);
    }
    easnode_frequency* all = nullptr;
    easnode_frequency_check* check = nullptr;
    EXPECT_EQ(EASNODE_OK, easnode_frequency_open(nullptr, &all, nullptr));
    easnode_frequency_set(all, 1600000, nullptr);
    EXPECT_EQ(EASNODE_OK, easnode_frequency_check_begin(all, 1600000, &check));
    easnode_frequency_check_end(check, nullptr);
    easnode_frequency_close(all);
    EXPECT_EQ(EASNODE_OK, easnode_record(
                              0, [](void*, const easnode_file*) { return 0; }, nullptr));
}

TEST_F(CloseOnExec, HoldsForEveryDescriptorThatTheLibrariesOpen) {
    const ScratchFile file("a=b\n");
    for (const NodeShape& shape : {of_model(26), of_model(45), small_node("epyc2023")}) {
        FakeNode node(shape);
        inside(node, [&] {
            noting = true;
            if (shape.old_model)
                sample_and_set_as_given();
            measure_and_set();
            const Properties properties(file.path().c_str());
            const UniqueFd log = open_debug_file((file.path() + ".log").c_str());
            noting = false;
            for (const auto& [what, closed_on_exec] : opened)
                EXPECT_TRUE(closed_on_exec) << what;
            for (const std::string& what :
                 {file.path(), file.path() + ".log", std::string("pipe"), std::string("event"),
                  std::string("/proc/cpuinfo"), std::string("/sys/devices/system/cpu/online")})
                EXPECT_EQ(1U, opened.count(what)) << what;
            EXPECT_EQ(shape.old_model, opened.count("event of gethwrusage") == 1);
            EXPECT_EQ(shape.old_model, opened.count("set later") == 1);
            EXPECT_EQ(shape.model == 45 && shape.old_model, opened.count("/dev/mem") == 1);
            EXPECT_EQ(shape.old_model ? 0U : 1U, opened.count("/sys/fs/resctrl"));
        });
    }
}

}  // namespace
}  // namespace eas::test
