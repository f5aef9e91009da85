#include "tools/easctl/node/RegisterTraffic.h"

#include "common/node/CpuTopology.h"
#include "common/node/MemoryChannels.h"
#include "common/node/UncoreCounters.h"
#include "tools/easctl/cli/Errors.h"
#include "tools/easctl/node/MemoryLink.h"
#include "tools/easctl/node/NodeLinks.h"

namespace easctl {

std::string RegisterTraffic::why_not() {
    const Link link = examine_memory_counters(read_processors().processors);
    return is_broken(link) ? link.found : "";
}

std::unique_ptr<RegisterTraffic> RegisterTraffic::start(bool force, std::string& reason) {
    reason = why_not();
    if (!reason.empty())
        return nullptr;
    const std::string user = use_of_memory_counters(read_processors().processors);
    if (!user.empty() && !force)
        throw Failure(ExitCode::node, "the memory counters are in use already: " + user,
                      "end the program that samples there; --force programs them all the same, "
                      "which spoils its figures");
    auto traffic = std::make_unique<RegisterTraffic>();
    discover_topology();
    if (init_uncore_counters() == 0)
        return traffic;
    reason = "the memory channels of a socket cannot be mapped";
    return nullptr;
}

RegisterTraffic::~RegisterTraffic() {
    for (unsigned s = 0; s < max_sockets; ++s)
        eas::reset_memory_channels(s);
    for (int s = 0; s < cinfo.numSockets; ++s)
        cleanup_uncore(static_cast<unsigned>(cinfo.SId[s]));
    for (unsigned s = 0; s < max_sockets; ++s)
        cleanup_memory_channels(s);
}

double RegisterTraffic::bytes() const {
    hwrusage usage{};
    read_uncore_counters(&usage);
    return static_cast<double>(usage.membytes_xferred);
}

}  // namespace easctl
