// One sample of gethwrusage beside the bare system calls that it is made of, inside a fake node:
// its counters and registers answer through a user-space file system, more slowly than a real
// node's and equally so for both.
#include <eas/EasMisc.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "bench/Contest.h"
#include "tests/support/fakenode/FakeNode.h"

namespace eas::bench {
namespace {

constexpr unsigned most_seconds = 300;
constexpr std::array<off_t, 2> thermal_registers{0x19C, 0x1A2};

/// The descriptors of the counters that the library has opened.
std::vector<int> counter_descriptors() {
    std::vector<int> counters;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        if (target.find("/counter/") != std::string::npos)
            counters.push_back(std::stoi(entry.path().filename()));
    }
    return counters;
}

void regain_root() {
    uid_t real = 0, effective = 0, saved = 0;
    if (::getresuid(&real, &effective, &saved) != 0 ||
        ::setresuid(static_cast<uid_t>(-1), saved, static_cast<uid_t>(-1)) != 0 ||
        ::geteuid() != saved)
        throw std::runtime_error("setresuid");
}

void give_up_root() {
    const uid_t user = ::getuid();
    if (::setresuid(static_cast<uid_t>(-1), user, ::geteuid()) != 0 || ::geteuid() != user)
        throw std::runtime_error("setresuid");
}

void read_register(const char* device, off_t number) {
    unsigned long long value = 0;
    const int fd = ::open(device, O_RDONLY | O_CLOEXEC);
    if (::pread(fd, &value, sizeof value, number) != sizeof value)
        throw std::runtime_error("pread");
    ::close(fd);
}

void bare_calls(const std::vector<int>& counters) {
    std::array<unsigned long long, 3> words{};
    timeval now{};
    regain_root();
    for (const int fd : counters) {
        if (::read(fd, words.data(), sizeof words) != sizeof words)
            throw std::runtime_error("read");
    }
    ::gettimeofday(&now, nullptr);
    for (const char* device : {"/dev/cpu/0/msr", "/dev/cpu/4/msr"}) {
        for (const off_t number : thermal_registers)
            read_register(device, number);
    }
    give_up_root();
}

void sample() {
    hwrusage usage{};
    if (gethwrusage(1001, &usage) != 0)
        throw std::runtime_error("gethwrusage");
}

int run_inside(int argc, char** argv) {
    sample();  // programs the counters
    const std::vector<int> counters = counter_descriptors();
    if (counters.size() != 15)
        throw std::runtime_error(std::to_string(counters.size()) + " counters");
    add({"gethwrusage, one sample", 1.05, 3000, 1, [&] {
             return std::vector<Contender>{
                 {"library", [] { return timed(sample); }},
                 {"bare", [&] { return timed([&] { bare_calls(counters); }); }}};
         }});
    const int result = run(argc, argv);
    gethwrusage(1001, nullptr);
    return result;
}

}  // namespace
}  // namespace eas::bench

int main(int argc, char** argv) {
    using namespace eas;
    bench::take_options(argc, argv);
    const std::string why = fake::FakeNode::unavailable();
    if (!why.empty()) {
        std::printf("gethwrusage: no fake node here: %s\n", why.c_str());
        return 0;
    }
    fake::NodeOptions options;
    options.seconds = bench::most_seconds;
    return fake::FakeNode(fake::NodeShape(), options).run([&] {
        try {
            return bench::run_inside(argc, argv);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "node_bench: %s\n", e.what());
            return 1;
        }
    });
}
