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
#include <cstdlib>
#include <cstring>

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
    // As large as the node could be, whatever is online.
    const size_t size = std::max<size_t>(128, (server.cpus.all().size() + 63) / 64 * 8);
    if (call.data.args[1] < size)
        return -EINVAL;
    if (!copy(::process_vm_writev, call, call.data.args[2], mask.data(), size))
        return -EFAULT;
    return static_cast<int64_t>(size);
}

/// The number of the event behind a descriptor of the caller; -1 if it is none.
int event_behind(const Call& call, int descriptor) {
    std::array<char, 256> target{};
    const std::string link =
        "/proc/" + std::to_string(call.pid) + "/fd/" + std::to_string(descriptor);
    if (::readlink(link.c_str(), target.data(), target.size() - 1) < 0)
        return -1;
    const char* name = std::strstr(target.data(), "/counter/");
    return name != nullptr ? std::atoi(name + std::strlen("/counter/")) : -1;
}

bool copy_attributes(const Call& call, perf_event_attr& attr) {
    return copy(::process_vm_readv, call, call.data.args[0], &attr, PERF_ATTR_SIZE_VER0) &&
           copy(::process_vm_readv, call, call.data.args[0], &attr,
                std::min<size_t>(attr.size, sizeof attr));
}

/// The number of a new event, or a negative errno.
int64_t new_counter(NodeServer& server, const Call& call) {
    const Lock lock(server.mutex);
    Counter counter{};
    const auto argument = [&](size_t i) { return static_cast<int>(call.data.args[i]); };
    if (!copy_attributes(call, counter.attr))
        return -EFAULT;
    counter.pid = argument(1);
    counter.cpu = argument(2);
    counter.leader = argument(3);
    counter.flags = call.data.args[4];
    counter.words = {0, 1, 1};
    counter.running_percent = 100;
    const size_t index = server.state.counters.count;
    if (server.shape.perf_refusal != 0)
        return -server.shape.perf_refusal;
    if (index >= max_counters)
        return -EMFILE;
    if (static_cast<int>(index) == server.state.counter_fails_at)
        return -server.state.counter_error;
    if (const int error = server.state.refusal != nullptr ? server.state.refusal(counter) : 0)
        return -error;
    const int leader = counter.leader >= 0 ? event_behind(call, counter.leader) : -1;
    if (counter.leader >= 0 && leader < 0)
        return -EBADF;
    server.advance();
    const int number = server.events.open(counter, leader);
    if (number >= 0)
        server.state.counters.add(counter);
    return number;
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
    if ((call.data.args[4] & PERF_FLAG_FD_CLOEXEC) != 0)
        handed.newfd_flags = O_CLOEXEC;
    handed.flags = SECCOMP_ADDFD_FLAG_SEND;  // the call returns the new descriptor's number
    handed.srcfd = static_cast<uint32_t>(file.get());
    if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_ADDFD, &handed) < 0)
        answer(listener, call, -errno);
}

}  // namespace

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
