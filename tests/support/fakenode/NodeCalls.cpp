// The system calls that answer for hardware: perf_event_open hands out a served file, and a thread
// may be bound to any CPU of the fake node, whatever CPUs the machine has.
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "base/UniqueFd.h"
#include "tests/support/fakenode/NodeServer.h"

namespace eas::fake {
namespace {

using Lock = std::lock_guard<std::mutex>;
using Call = seccomp_notif;

/// Copies between the caller's `address` and `here`, one way or the other.
template <typename Copy>
bool copy(Copy process_vm, const Call& call, uint64_t address, void* here, size_t size) {
    const iovec local{here, size};
    const iovec remote{reinterpret_cast<void*>(address), size};
    return process_vm(static_cast<pid_t>(call.pid), &local, 1, &remote, 1, 0) ==
           static_cast<ssize_t>(size);
}

void answer(int listener, const Call& call, int64_t result) {
    seccomp_notif_resp response{};
    response.id = call.id;
    if (result < 0)
        response.error = static_cast<int>(result);
    else
        response.val = result;
    ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
}

CpuMask all_cpus(const NodeServer& server) {
    CpuMask mask{};
    for (const int cpu : server.cpus.online())
        mask.at(static_cast<size_t>(cpu) / 64) |= uint64_t{1} << (cpu % 64);
    return mask;
}

int64_t set_affinity(NodeServer& server, const Call& call) {
    const Lock lock(server.mutex);
    CpuMask wanted{};
    const size_t size = std::min<size_t>(call.data.args[1], sizeof wanted);
    if (!copy(::process_vm_readv, call, call.data.args[2], wanted.data(), size))
        return -EFAULT;
    const CpuMask present = all_cpus(server);
    for (size_t word = 0; word < wanted.size(); ++word)
        wanted[word] &= present[word];
    if (wanted == CpuMask{})
        return -EINVAL;
    const int target = static_cast<int>(call.data.args[0]);
    server.masks[target != 0 ? target : static_cast<int>(call.pid)] = wanted;
    return 0;
}

int64_t get_affinity(NodeServer& server, const Call& call) {
    const Lock lock(server.mutex);
    const int target = static_cast<int>(call.data.args[0]);
    CpuMask mask = server.affinity_of(target != 0 ? target : static_cast<int>(call.pid));
    if (call.data.args[1] < sizeof mask)
        return -EINVAL;
    if (!copy(::process_vm_writev, call, call.data.args[2], mask.data(), sizeof mask))
        return -EFAULT;
    return sizeof mask;
}

/// Opens the served file of a new counter; its number, or a negative errno.
int64_t new_counter(NodeServer& server, const Call& call) {
    const Lock lock(server.mutex);
    Counter counter{};
    const auto argument = [&](size_t i) { return static_cast<int>(call.data.args[i]); };
    if (!copy(::process_vm_readv, call, call.data.args[0], &counter.attr, PERF_ATTR_SIZE_VER0))
        return -EFAULT;
    if (!copy(::process_vm_readv, call, call.data.args[0], &counter.attr,
              std::min<size_t>(counter.attr.size, sizeof counter.attr)))
        return -EFAULT;
    counter.pid = argument(1);
    counter.cpu = argument(2);
    counter.leader = argument(3);
    counter.flags = call.data.args[4];
    counter.words = {0, 1, 1};
    if (counter.pid == -1 && counter.cpu == -1)
        return -EINVAL;
    const size_t index = server.state.counters.count;
    if (index >= kMaxCounters)
        return -EMFILE;
    if (static_cast<int>(index) == server.state.counter_fails_at)
        return -ENODEV;
    server.advance();
    counter.opened_at = total_of(server, counter);
    server.state.counters.add(counter);
    return static_cast<int64_t>(index);
}

void open_counter(NodeServer& server, int listener, const Call& call) {
    const int64_t index = new_counter(server, call);
    if (index < 0)
        return answer(listener, call, index);
    // Without the lock: this open is answered by the other thread.
    const std::string path = server.stage + "/files/counter/" + std::to_string(index);
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    seccomp_notif_addfd handed{};
    handed.id = call.id;
    handed.flags = SECCOMP_ADDFD_FLAG_SEND;  // the call returns the new descriptor's number
    handed.srcfd = static_cast<uint32_t>(file.get());
    if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_ADDFD, &handed) < 0)
        answer(listener, call, -errno);
}

}  // namespace

double total_of(const NodeServer& server, const Counter& counter) {
    const CpuWork work =
        counter.cpu < 0 ? server.workload.all_cpus() : server.workload.of_cpu(counter.cpu);
    if (counter.attr.type != PERF_TYPE_HARDWARE)
        return 0;
    if (counter.attr.config == PERF_COUNT_HW_CPU_CYCLES)
        return work.cycles;
    return counter.attr.config == PERF_COUNT_HW_INSTRUCTIONS ? work.instructions : 0;
}

CpuMask NodeServer::affinity_of(int thread) const {
    const auto found = masks.find(thread);
    return found != masks.end() ? found->second : all_cpus(*this);
}

int divert_system_calls(bool affinity_too) {
    const auto jump = [](uint32_t number, uint8_t distance) {
        return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, distance, 0);
    };
    const uint32_t never = ~uint32_t{0};
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        jump(SYS_perf_event_open, 3),
        jump(affinity_too ? uint32_t{SYS_sched_setaffinity} : never, 2),
        jump(affinity_too ? uint32_t{SYS_sched_getaffinity} : never, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
    };
    const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
    return static_cast<int>(
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

void serve_system_calls(NodeServer& server, int listener) {
    for (;;) {
        pollfd ready{listener, POLLIN, 0};
        if (::poll(&ready, 1, -1) < 0 && errno == EINTR)
            continue;
        if ((ready.revents & POLLIN) == 0)
            return;
        Call call{};
        if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0)
            continue;
        if (call.data.nr == SYS_perf_event_open)
            open_counter(server, listener, call);
        else if (call.data.nr == SYS_sched_setaffinity)
            answer(listener, call, set_affinity(server, call));
        else
            answer(listener, call, get_affinity(server, call));
    }
}

}  // namespace eas::fake
