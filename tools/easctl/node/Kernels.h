// The seven programs that a calibration runs, from compute-bound to memory-bound. Together they
// spread over what jobs do to a node: few or many cycles per instruction, little or much traffic to
// memory. An instance is the work of one thread, with data of its own.
#pragma once

#include <array>
#include <cstddef>
#include <memory>

#include "common/node/EnergyUtil.h"

namespace easctl {

class KernelWork {
  public:
    KernelWork() = default;
    KernelWork(const KernelWork&) = delete;
    KernelWork& operator=(const KernelWork&) = delete;
    virtual ~KernelWork() = default;

    /// A slice of the work: at most about 10 ms, so that a run ends soon after it is told to.
    virtual void step() = 0;
};

struct Kernel {
    const char* name;
    const char* character;  // what bounds it
    /// Allocates and touches the data of one thread; throws std::bad_alloc.
    std::unique_ptr<KernelWork> (*make)();
};

/// Data of one thread of the kernel that needs most, bytes.
constexpr std::size_t kLargestKernelBytes = std::size_t{48} << 20;

const std::array<Kernel, EnergyUtil::COEFNUM>& kernels();

}  // namespace easctl
