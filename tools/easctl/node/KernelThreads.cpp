#include "tools/easctl/node/KernelThreads.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>

#include "tools/easctl/cli/Errors.h"

namespace easctl {
namespace {

constexpr double poll_seconds = 0.005;
// Below everything else, so that the sampling thread never waits for a kernel.
constexpr int lowest_priority = 19;

struct SetFreer {
    void operator()(cpu_set_t* set) const { CPU_FREE(set); }
};

/// A set of the usual size ends at 1024 CPUs.
void bind_to(int cpu) {
    const auto number = static_cast<std::size_t>(cpu);
    const std::unique_ptr<cpu_set_t, SetFreer> set(CPU_ALLOC(number + 1));
    const std::size_t size = CPU_ALLOC_SIZE(number + 1);
    if (set == nullptr)
        throw std::bad_alloc();
    CPU_ZERO_S(size, set.get());
    CPU_SET_S(number, size, set.get());
    if (::sched_setaffinity(0, size, set.get()) != 0)
        throw std::runtime_error("no thread can be bound to cpu" + std::to_string(cpu) + ": " +
                                 std::strerror(errno));
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), lowest_priority);
}

}  // namespace

KernelThreads::KernelThreads(const Kernel& kernel, const std::vector<int>& cpus,
                             const HeldSignals& signals) {
    for (const int cpu : cpus)
        start(kernel, cpu);
    while (ready_ < cpus.size())
        signals.sleep_or_throw(poll_seconds);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!error_.empty())
        throw Failure(ExitCode::node, "kernel " + std::string(kernel.name) + ": " + error_,
                      "choose the processors with --cpu-list");
}

KernelThreads::Crew::~Crew() {
    stopping = true;
    for (std::thread& thread : threads)
        thread.join();
}

void KernelThreads::start(const Kernel& kernel, int cpu) {
    try {
        crew_.threads.emplace_back([this, &kernel, cpu] { work(kernel, cpu); });
    } catch (const std::system_error& e) {
        throw Failure(ExitCode::node, std::string("no thread can be started: ") + e.what());
    }
}

void KernelThreads::work(const Kernel& kernel, int cpu) {
    try {
        bind_to(cpu);
        const auto work = kernel.make();
        work->step();
        ++ready_;
        while (!crew_.stopping)
            work->step();
    } catch (const std::exception& e) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (error_.empty())
            error_ = e.what();
        ++ready_;
    }
}

}  // namespace easctl
