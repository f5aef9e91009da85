#include "tests/support/fakenode/FakeNode.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <system_error>
#include <thread>

#include "base/UniqueFd.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ScratchFolder.h"
#include "tests/support/fakenode/NodeServer.h"

namespace eas::fake {
namespace {

namespace fs = std::filesystem;
using test::exit_status;
using test::write_file;

void check(bool good, const std::string& what) {
    if (!good)
        throw std::system_error(errno, std::generic_category(), what);
}

void cover(const fs::path& from, const fs::path& to) {
    check(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, to);
}

/// What of the machine's own /dev stays, if it is there.
constexpr const char* kept_devices[] = {"null",  "zero",   "full",  "random", "urandom",
                                        "tty",   "fuse",   "pts",   "shm",    "fd",
                                        "stdin", "stdout", "stderr"};

void keep_device(const fs::path& from, const fs::path& to) {
    if (fs::is_symlink(from))
        return fs::copy_symlink(from, to);
    if (!fs::exists(from))
        return;
    if (fs::is_directory(from))
        fs::create_directories(to);
    else
        write_file(to, "");
    cover(from, to);
}

void make_devices(const fs::path& stage) {
    fs::create_directories(stage / "dev");
    for (const char* name : kept_devices)
        keep_device(fs::path("/dev") / name, stage / "dev" / name);
}

void make_registers(const NodeShape& shape, const fs::path& stage) {
    fs::create_directories(stage / "dev" / "cpu");
    write_file(stage / "dev" / "mem", "");
    // Sparse: from address 0 to the end of the 256 MiB that configuration space takes.
    fs::resize_file(stage / "dev" / "mem", shape.mcfg_base + (uint64_t{256} << 20));
    // The memory controllers' pages say whose they are.
    std::fstream memory(stage / "dev" / "mem", std::ios::in | std::ios::out | std::ios::binary);
    for (const uint64_t bus : {127U, 255U}) {
        for (const uint64_t device : {16U, 30U}) {
            for (const uint64_t function : {4U, 5U, 0U, 1U}) {
                memory.seekp(static_cast<std::streamoff>(
                    shape.mcfg_base + (bus << 20 | device << 15 | function << 12)));
                memory.write("\x86\x80", 2);
            }
        }
    }
    memory.close();
    cover(stage / "files" / "msr", stage / "dev" / "cpu");
}

/// Covers /sys whole and single files of /proc by the served ones.
void cover_files(NodeServer& server, const fs::path& served) {
    if (fs::exists("/sys/fs/cgroup")) {
        server.root.make("sys/fs/cgroup", TreeEntry::Kind::folder);
        cover("/sys/fs/cgroup", served / "sys/fs/cgroup");
    }
    cover(served / "sys", "/sys");
    server.root.each_file("proc", [&](const std::string& path) {
        // The descriptor stands for a link itself: /proc/mounts is one, and differs by process.
        const UniqueFd target(::open(("/" + path).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (target.is_open())
            cover(served / path, "/proc/self/fd/" + std::to_string(target.get()));
    });
}

void cover_machine(NodeServer& server, const fs::path& stage) {
    if (server.shape.old_model)
        make_registers(server.shape, stage);
    make_devices(stage);
    cover_files(server, stage / "files" / "node");
    cover(stage / "dev", "/dev");
}

/// The descriptor `number` of process `child`.
UniqueFd take_descriptor(pid_t child, int number) {
    const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), number, 0)));
}

struct Pipe {
    Pipe() {
        int ends[2];
        check(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
        out.reset(ends[0]);
        in.reset(ends[1]);
    }
    UniqueFd out, in;
};

/// The inhabitant: waits until the node stands, hands its listener over, lives.
int inhabit(Pipe& ready, Pipe& calls, const NodeOptions& options,
            const std::function<int()>& body) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ready.in.reset();
    calls.out.reset();
    char go = 0;
    if (::read(ready.out.get(), &go, 1) != 1)
        return no_node;
    UniqueFd listener(divert_system_calls(options.own_affinity));
    const int number = listener.get();
    if (!listener.is_open() || ::write(calls.in.get(), &number, sizeof number) < 0 ||
        ::read(ready.out.get(), &go, 1) != 1)
        return no_node;
    listener.reset();
    ready.out.reset();
    calls.in.reset();
    ::alarm(options.seconds);
    return body();
}

/// Runs the node around `child` until it ends. Threads are not joined: the caller exits.
int keep_node(NodeServer& server, pid_t child, Pipe& ready, Pipe& calls) {
    const sched_param before_others{1};  // hardware waits for no other process
    ::sched_setscheduler(0, SCHED_RR, &before_others);
    const fs::path files = server.stage + "/files";
    check(::mount("fakenode", server.stage.c_str(), "tmpfs", 0, "mode=755") == 0, "tmpfs");
    fs::create_directories(files);
    ::fuse* served = mount_files(server, files);
    check(served != nullptr, "mounting the served files");
    std::thread([served] { serve_files(served); }).detach();
    cover_machine(server, server.stage);
    int number = -1;
    check(::write(ready.in.get(), "g", 1) == 1, "starting the node");
    check(::read(calls.out.get(), &number, sizeof number) == sizeof number, "diverting calls");
    UniqueFd listener = take_descriptor(child, number);
    check(listener.is_open() && ::write(ready.in.get(), "g", 1) == 1, "taking the calls over");
    std::thread([&server, fd = listener.release()] { serve_system_calls(server, fd); }).detach();
    if (server.workload.active())
        std::thread([&server] {
            for (;; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
                const std::lock_guard<std::mutex> lock(server.mutex);
                if (!server.is_reading())
                    server.advance();
            }
        }).detach();
    return exit_status(child);
}

}  // namespace

FakeNode::FakeNode(NodeShape shape, NodeOptions options)
    : shape_(std::move(shape)), options_(options) {
    void* block = ::mmap(nullptr, sizeof(NodeState), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    check(block != MAP_FAILED, "shared state");
    state_ = new (block) NodeState{};
    state_->reset(shape_);
}

FakeNode::~FakeNode() {
    ::munmap(state_, sizeof(NodeState));
}

void FakeNode::serve(const std::function<int()>& body, const std::string& stage) {
    int status = no_node;
    try {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        check(::unshare(CLONE_NEWNS) == 0, "private mount namespace");
        check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
        Pipe ready, calls;
        // Forked before there are threads; the mounts that follow appear in its namespace too.
        const pid_t child = ::fork();
        check(child >= 0, "fork");
        if (child == 0)
            std::exit(inhabit(ready, calls, options_, body));
        ready.out.reset();
        calls.in.reset();
        auto& server = *std::make_unique<NodeServer>(shape_, *state_, stage, options_.own_affinity)
                            .release();  // outlives every thread: the process ends first
        status = keep_node(server, child, ready, calls);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "no fake node: %s\n", error.what());
    }
    ::_exit(status);
}

int FakeNode::run(const std::function<int()>& body) {
    std::string stage = fs::temp_directory_path() / "fakenode.XXXXXX";
    check(::mkdtemp(stage.data()) != nullptr, stage);
    std::fflush(nullptr);
    const pid_t server = ::fork();
    check(server >= 0, "fork");
    if (server == 0)
        serve(body, stage);
    const int status = exit_status(server);
    fs::remove(stage);
    return status;
}

int FakeNode::exec(char* const argv[]) {
    return run([argv] {
        ::execvp(argv[0], argv);
        std::perror(argv[0]);
        return 127;
    });
}

std::string FakeNode::unavailable() {
    const int status = FakeNode().run([] { return 0; });
    return status == 0 ? "" : "a private mount namespace with FUSE is not to be had here";
}

void NodeState::reset(const NodeShape& shape) {
    msr_count = {};
    msr_device = MsrDevice::present;
    msr_stray_bits = 0;
    deaf = shape.driver == FreqDriver::deaf;
    cap_khz = 0;
    running_percent = 100;
    counter_fails_at = -1;
    refusal = nullptr;
    counter_error = ENODEV;
    msr_log.clear();
    freq_log.clear();
    counters.clear();
    for (int cpu = 0; shape.old_model && cpu < shape.cpus() && cpu < max_cpus; ++cpu) {
        set_msr(cpu, 0xCE, static_cast<uint64_t>(shape.nonturbo_ratio) << 8);
        set_msr(cpu, 0x19C, 0x80000000 | 40 << 16);  // 40 degrees below the limit, valid
        set_msr(cpu, 0x1A2, 95 << 16);
        set_msr(cpu, 0x391, 0);  // no memory counter runs
        set_msr(cpu, 0xC00, 0);
    }
}

}  // namespace eas::fake
