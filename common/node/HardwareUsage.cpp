// Sampling of hardware usage: programs the counters on the first call, reads them on each, undoes
// the programming on request. Process-wide state; one thread samples.
#include "base/CancelState.h"
#include "common/node/CoreCounters.h"
#include "common/node/CpuTopology.h"
#include "common/node/EasMisc.h"
#include "common/node/EnergySensors.h"
#include "common/node/MemoryChannels.h"
#include "common/node/Privileges.h"
#include "common/node/UncoreCounters.h"

namespace {

void program_counters(pid_t pid) {
    // A node with some of the sources is worth sampling: neither result stops it.
    init_core_counters(pid);
    init_uncore_counters();
}

void tear_down_counters() {
    eas::close_core_counters();
    for (int s = 0; s < cinfo.numSockets; ++s) {
        cleanup_uncore(static_cast<unsigned>(cinfo.SId[s]));
    }
    // Channels are held by socket index: with gaps in the socket ids some are not reached above.
    for (unsigned s = 0; s < max_sockets; ++s)
        cleanup_memory_channels(s);
}

}  // namespace

int gethwrusage(pid_t pid, hwrusage* usage) {
    static int initted = 0;
    const eas::DeferCancellation deferred;
    eas::PrivilegedSection privileged;
    if (usage == nullptr) {
        if (initted == 0) {
            privileged.keep();  // daemons regain root this way before their own set-up
            return 0;
        }
        tear_down_counters();
        initted = 0;
        return 0;
    }
    if (initted == 0) {
        if (supported_platform() == 0)
            return -1;
        program_counters(pid);
        initted = 1;
    }
    read_core_counters(usage);
    read_inlet_temperature(usage);
    read_uncore_counters(usage);
    return 0;
}
