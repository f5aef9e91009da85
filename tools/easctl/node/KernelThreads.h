// A kernel at work on several CPUs: one thread on each, bound to it.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/easctl/cli/Signals.h"
#include "tools/easctl/node/Kernels.h"

namespace easctl {

class KernelThreads {
  public:
    /// Starts the threads and waits until each has its data and works. Throws Failure when one
    /// cannot be bound or has no memory, and when a signal arrives.
    KernelThreads(const Kernel& kernel, const std::vector<int>& cpus, const HeldSignals& signals);
    KernelThreads(const KernelThreads&) = delete;
    KernelThreads& operator=(const KernelThreads&) = delete;
    ~KernelThreads() = default;

  private:
    /// Tells its threads to stop, and waits for them, at the end of its life.
    struct Crew {
        Crew() = default;
        Crew(const Crew&) = delete;
        Crew& operator=(const Crew&) = delete;
        ~Crew();
        std::atomic<bool> stopping{false};
        std::vector<std::thread> threads;
    };

    void start(const Kernel& kernel, int cpu);
    void work(const Kernel& kernel, int cpu);

    std::atomic<std::size_t> ready_{0};  // threads that work, or failed
    std::mutex mutex_;
    std::string error_;  // of the first that failed
    Crew crew_;          // the last member: the others outlive its threads
};

}  // namespace easctl
