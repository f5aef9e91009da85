// One reading of a node's meter on 224 CPUs beside the bare system calls that it needs, and its
// opening by the number of CPUs. The list of CPUs is a file of ours, and an event of a CPU that
// this machine lacks is opened on one that it has: the descriptors and their reading are the
// kernel's. Software events stand for those of the hardware, which many a virtual machine lacks;
// reading them is cheaper, so that the library's own part shows more.
#include <fcntl.h>
#include <linux/perf_event.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Contest.h"
#include "node/node.h"
#include "tests/support/ScratchFolder.h"

namespace {

constexpr const char* online_file = "/sys/devices/system/cpu/online";
constexpr int most_cpus = 224;

long own_cpus = 1;  // that this machine has

}  // namespace

extern "C" {

long __real_syscall(long number, ...);

/// Every call of syscall(2) in the library's objects.
long __wrap_syscall(long number, ...) {
    std::array<long, 6> words{};
    std::va_list arguments;
    va_start(arguments, number);
    for (long& word : words)
        word = va_arg(arguments, long);
    va_end(arguments);
    if (number == SYS_perf_event_open) {
        auto* const attributes = reinterpret_cast<perf_event_attr*>(words[0]);
        attributes->type = PERF_TYPE_SOFTWARE;
        attributes->config = attributes->config == PERF_COUNT_HW_CPU_CYCLES
                                 ? PERF_COUNT_SW_CONTEXT_SWITCHES
                                 : PERF_COUNT_SW_PAGE_FAULTS;
        words[2] = static_cast<int>(words[2]) % own_cpus;
    }
    return __real_syscall(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

}  // extern "C"

namespace eas::bench {
namespace {

struct MeterCloser {
    void operator()(easnode_meter* meter) const { easnode_meter_close(meter); }
};
using OwnedMeter = std::unique_ptr<easnode_meter, MeterCloser>;

OwnedMeter open_meter() {
    easnode_meter_options options{};
    options.size = sizeof options;
    options.memory_sources = options.energy_sources = "none";
    easnode_meter* meter = nullptr;
    if (easnode_meter_open(&options, &meter) != EASNODE_OK)
        throw std::runtime_error("easnode_meter_open");
    return OwnedMeter(meter);
}

void read_meter(const OwnedMeter& meter) {
    easnode_reading reading{};
    reading.size = sizeof reading;
    if (easnode_meter_read(meter.get(), &reading) != EASNODE_OK ||
        reading.cycles.quality == EASNODE_MISSING)
        throw std::runtime_error("easnode_meter_read: " + std::string(reading.cycles.reason));
}

/// The leaders of the groups that are open: every other event, as they were opened.
std::vector<int> find_leaders() {
    std::vector<int> events;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == "anon_inode:[perf_event]")
            events.push_back(std::stoi(entry.path().filename()));
    }
    std::sort(events.begin(), events.end());
    std::vector<int> leaders;
    for (std::size_t i = 0; i < events.size(); i += 2)
        leaders.push_back(events[i]);
    return leaders;
}

void bare_calls(int online, const std::vector<int>& leaders) {
    std::array<char, 8192> text;
    std::array<unsigned long long, 5> words;
    if (::pread(online, text.data(), text.size(), 0) <= 0)
        throw std::runtime_error("pread");
    for (const int leader : leaders)
        if (::read(leader, words.data(), sizeof words) != sizeof words)
            throw std::runtime_error("read");
}

/// Puts a list of so many CPUs in place of the kernel's, for this process only.
class CpuList {
  public:
    CpuList() {
        set(most_cpus);
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount(path_.c_str(), online_file, nullptr, MS_BIND, nullptr) != 0)
            throw std::runtime_error("a list of CPUs of our own needs root");
    }
    ~CpuList() { ::umount(online_file); }
    void set(int cpus) const { std::ofstream(path_) << "0-" << cpus - 1 << '\n'; }

  private:
    test::ScratchFolder folder_;
    std::string path_ = folder_.path("online");
};

/// "12 12 13 us": opening and closing, per CPU.
std::string opening(const CpuList& list) {
    std::string text;
    for (const int cpus : {most_cpus / 4, most_cpus / 2, most_cpus}) {
        list.set(cpus);
        std::vector<double> times;
        for (int i = 0; i < (is_quick() ? 1 : 21); ++i)
            times.push_back(timed([] { open_meter(); }) / cpus / 1e3);
        text += std::to_string(quantile(times)).substr(0, 5) + " ";
    }
    return text + "us per CPU of 56, 112, 224";
}

int bench(int argc, char** argv) {
    own_cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
    const CpuList list;
    const OwnedMeter meter = open_meter();
    const int online = ::open(online_file, O_RDONLY | O_CLOEXEC);
    read_meter(meter);
    const std::vector<int> leaders = find_leaders();
    if (leaders.size() != most_cpus)
        throw std::runtime_error(std::to_string(leaders.size()) + " groups");
    add({"meter, one reading of 224 CPUs", 1.05, 1000, 1, [&] {
             return std::vector<Contender>{
                 {"library", [&] { return timed([&] { read_meter(meter); }); }},
                 {"bare", [&] { return timed([&] { bare_calls(online, leaders); }); }}};
         }});
    add_row("meter, opening", [&] { return opening(list); });
    const int result = run(argc, argv);
    ::close(online);
    return result;
}

}  // namespace
}  // namespace eas::bench

int main(int argc, char** argv) {
    eas::bench::take_options(argc, argv);
    try {
        return eas::bench::bench(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "node_meter_bench: %s\n", e.what());
        return 1;
    }
}
