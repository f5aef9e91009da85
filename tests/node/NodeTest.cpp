#include "tests/node/NodeTest.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <sstream>

namespace eas::test {

namespace fs = std::filesystem;

void NodeTest::SetUp() {
    static const std::string reason = FakeNode::unavailable();
    if (!reason.empty())
        GTEST_SKIP() << reason;
}

NodeShape of_model(int model, int sockets, int cores, int threads) {
    NodeShape shape;
    shape.model = model;
    shape.sockets = sockets;
    shape.cores = cores;
    shape.threads = threads;
    return shape;
}

void inside(FakeNode& node, const std::function<void()>& body) {
    const int status = node.run([&] {
        const std::string before = footprint();
        body();
        EXPECT_EQ(before, footprint());
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, status) << "failed inside the node";
}

std::vector<std::string> open_descriptors() {
    std::vector<std::string> found;
    for (int fd = 0; fd < 1024; ++fd) {
        std::error_code error;
        const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
        if (!error)
            found.push_back(std::to_string(fd) + " " + target.string());
    }
    return found;
}

std::string footprint() {
    std::ostringstream text;
    for (const std::string& line : open_descriptors())
        text << line << '\n';
    const fs::directory_iterator tasks("/proc/self/task");
    text << std::distance(begin(tasks), end(tasks)) << " threads, cpus";
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    ::sched_getaffinity(0, sizeof cpus, &cpus);
    for (int cpu = 0; cpu < fake::max_cpus; ++cpu)
        if (CPU_ISSET(cpu, &cpus))
            text << ' ' << cpu;
    uid_t real = 0, effective = 0, saved = 0;
    ::getresuid(&real, &effective, &saved);
    text << ", users " << real << ' ' << effective << ' ' << saved;
    return text.str();
}

std::vector<std::string> writes(FakeNode& node) {
    std::vector<std::string> lines;
    for (const fake::FreqWrite& write : node.state().freq_log)
        lines.push_back(std::to_string(write.cpu) + " " + write.file.data() + "=" +
                        write.text.data());
    node.state().freq_log.clear();
    return lines;
}

Hidden::Hidden(std::string path) : path_(std::move(path)) {
    EXPECT_EQ(0, ::mount("hidden", path_.c_str(), "tmpfs", 0, nullptr)) << path_;
}

Hidden::~Hidden() {
    EXPECT_EQ(0, ::umount(path_.c_str())) << path_;
}

namespace {

void trace(const std::function<void()>& prepare, const std::function<void()>& body,
           const std::function<void(pid_t, const __ptrace_syscall_info&)>& seen) {
    constexpr long marker = SYS_getsid;  // made before and after the body, by nothing else
    const pid_t child = ::fork();
    if (child == 0) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
        prepare();
        ::syscall(marker, 0);
        body();
        ::syscall(marker, 0);
        ::_exit(0);
    }
    int status = 0, markers = 0;
    ::waitpid(child, &status, 0);
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    while (WIFSTOPPED(status)) {
        __ptrace_syscall_info info{};
        if (WSTOPSIG(status) == (SIGTRAP | 0x80))
            ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            if (static_cast<long>(info.entry.nr) == marker)
                ++markers;
            else if (markers == 1)
                seen(child, info);
        }
        ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        if (::waitpid(child, &status, 0) != child)
            break;
    }
    EXPECT_EQ(2, markers);
}

}  // namespace

std::vector<long> system_calls_of(const std::function<void()>& prepare,
                                  const std::function<void()>& body) {
    std::vector<long> calls;
    trace(prepare, body, [&calls](pid_t, const __ptrace_syscall_info& info) {
        calls.push_back(static_cast<long>(info.entry.nr));
    });
    return calls;
}

std::set<std::string> paths_opened_by(const std::function<void()>& body) {
    std::set<std::string> paths;
    trace([] {}, body,
          [&paths](pid_t child, const __ptrace_syscall_info& info) {
              constexpr unsigned long folder = O_DIRECTORY;
              if (info.entry.nr != SYS_openat || (info.entry.args[2] & folder) != 0)
                  return;
              std::array<char, 256> path{};
              // What lies behind the end of its page may not be readable, and is then left out.
              const auto at = info.entry.args[1];
              const size_t all = path.size() - 1, here = std::min<size_t>(all, 4096 - at % 4096);
              const iovec to{path.data(), all};
              const iovec from[] = {{reinterpret_cast<void*>(at), here},
                                    {reinterpret_cast<void*>(at + here), all - here}};
              EXPECT_LT(0, ::process_vm_readv(child, &to, 1, from, 2, 0));
              paths.insert(path.data());
          });
    return paths;
}

}  // namespace eas::test
