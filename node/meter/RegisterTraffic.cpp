// Memory traffic by the memory counters of processors of models 26 to 62, which the given node
// functions program: the last resort, where the kernel has no PMU for the memory controllers. They
// belong to the node: one program at a time has them, and in it one meter.
#include <fcntl.h>
#include <sys/file.h>

#include <atomic>
#include <cerrno>
#include <optional>

#include "base/UniqueFd.h"
#include "common/node/EasMisc.h"
#include "common/node/MemoryChannels.h"
#include "common/node/ProcessorModel.h"
#include "common/node/UncoreCounters.h"
#include "node/meter/MemoryRegisters.h"
#include "node/meter/Source.h"

namespace eas::node {
namespace {

constexpr const char* others_use = "the memory counters are in use already: ";

/// Whether a meter of this process has the counters: what the given functions map is one for all.
std::atomic<bool> taken_here{false};

class Taken {
  public:
    Taken() : mine_(!taken_here.exchange(true)) {}
    ~Taken() {
        if (mine_)
            taken_here = false;
    }
    Taken(const Taken&) = delete;
    Taken& operator=(const Taken&) = delete;
    [[nodiscard]] bool mine() const noexcept { return mine_; }

  private:
    bool mine_;
};

/// Locks the device through which the counters are reached against other meters of this kind.
/// False: one of them has it. The lock goes with the descriptor, and so with the process, too.
bool lock_counters(const cpuinfo_t& processors, UniqueFd& device) {
    const bool mapped = memory_method(processors.model) == MemoryMethod::memory_channels;
    device.reset(::open(mapped ? "/dev/mem" : "/dev/cpu/0/msr", O_RDONLY | O_CLOEXEC));
    return ::flock(device.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

std::uint64_t bytes_now() {
    hwrusage usage{};
    read_uncore_counters(&usage);
    return usage.membytes_xferred;
}

/// The programmed counters of all sockets; gives them back.
class ProgrammedCounters {
  public:
    ProgrammedCounters() {
        discover_topology();
        good_ = init_uncore_counters() == 0;
    }
    ~ProgrammedCounters() {
        for (unsigned s = 0; s < max_sockets; ++s)
            reset_memory_channels(s);
        for (int s = 0; s < cinfo.numSockets; ++s)
            cleanup_uncore(static_cast<unsigned>(cinfo.SId[s]));
        for (unsigned s = 0; s < max_sockets; ++s)
            cleanup_memory_channels(s);
    }
    ProgrammedCounters(const ProgrammedCounters&) = delete;
    ProgrammedCounters& operator=(const ProgrammedCounters&) = delete;
    [[nodiscard]] bool good() const noexcept { return good_; }

  private:
    bool good_;
};

class RegisterTraffic : public Source {
  public:
    bool open(const Request& request, std::string& reason) {
        coverage_ = {EASNODE_NODE,
                     "memory controllers, all sockets, read+write, by registers that the meter "
                     "programs",
                     0};
        processors_ = known_processors();
        const RegisterLook look = look_at_registers(processors_);
        if (look.obstacle != Obstacle::none)
            reason = look.found;
        else if (request.registers != EASNODE_REGISTERS_LOOK)
            reason = take(request.registers == EASNODE_REGISTERS_TAKE);
        return reason.empty();
    }

    void read(Nanoseconds, Result& result) override {
        if (counters_ == nullptr) {
            result.wait_for("the registers are looked at only: they are not programmed");
            return;
        }
        const bool programmed = !use_of_registers(processors_).empty();
        const std::uint64_t bytes = bytes_now();
        if (!programmed || bytes < last_) {
            result.end("another program has taken the memory counters");
            return;
        }
        last_ = bytes;
        result.values[0] = static_cast<double>(bytes - first_);
    }

  private:
    /// Why the counters cannot be had; empty: they count.
    std::string take(bool although_in_use) {
        if (!taken_.emplace().mine())
            return std::string(others_use) + "by a meter of this program";
        const bool locked = lock_counters(processors_, lock_);
        std::string user = use_of_registers(processors_);
        if (user.empty() && !locked)
            user = "by a meter of another program";
        if (!user.empty() && !although_in_use)
            return others_use + user;
        counters_ = std::make_unique<ProgrammedCounters>();
        if (!counters_->good())
            return "the memory channels of a socket cannot be mapped";
        first_ = last_ = bytes_now();
        return {};
    }

    std::optional<Taken> taken_;
    cpuinfo_t processors_{};
    UniqueFd lock_;
    std::unique_ptr<ProgrammedCounters> counters_;
    std::uint64_t first_ = 0;
    std::uint64_t last_ = 0;
};

}  // namespace

std::unique_ptr<Source> open_registers(const Request& request, std::string& reason) {
    auto source = std::make_unique<RegisterTraffic>();
    return source->open(request, reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
