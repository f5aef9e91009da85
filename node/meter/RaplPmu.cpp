// Energy of packages and memory through the PMU "power": the kernel folds the wraps.
#include <algorithm>
#include <cerrno>
#include <set>

#include "base/Numbers.h"
#include "node/files/PseudoFile.h"
#include "node/meter/BoxEvents.h"
#include "node/meter/Rapl.h"
#include "node/topology/Processor.h"

namespace eas::node {
namespace {

/// The event, if the device has it in joules.
std::optional<BoxEvent> energy_event(const PmuDevice& device, const char* name) {
    const auto event = device.event(name);
    if (!event || event->unit != "Joules")
        return std::nullopt;
    return BoxEvent{event->config, event->scale};
}

/// Of CPUs that speak for a die each, one per package.
std::vector<int> one_per_package(const std::vector<int>& cpus) {
    std::vector<int> chosen;
    std::set<long long> packages;
    for (const int cpu : cpus) {
        const auto package = read_number("/sys/devices/system/cpu/cpu" + decimal(cpu) +
                                         "/topology/physical_package_id");
        if (!package || packages.insert(*package).second)
            chosen.push_back(cpu);
    }
    return chosen;
}

class RaplPmu : public Source {
  public:
    bool open(const Request& request, std::string& reason) {
        opened_ = request.now;
        auto devices = find_pmus("power");
        if (devices.empty()) {
            reason = "no PMU power (module rapl; virtual machines have none)";
            return false;
        }
        PmuDevice& device = devices.front();
        if (dies_repeat_their_package())
            device.cpus = one_per_package(device.cpus);
        const auto packages = energy_event(device, "energy-pkg");
        const auto memory = energy_event(device, "energy-ram");
        if (!packages) {
            reason = "the PMU power has no event energy-pkg in joules";
            return false;
        }
        // Some kernels list memory where the processor does not count it.
        if (memory && counters_.add(device, {*packages, *memory}) == 0) {
            coverage_ = rapl_coverage(true);
            return true;
        }
        counters_.clear();
        coverage_ = rapl_coverage(false);
        const int error = counters_.add(device, {*packages});
        if (error != 0)
            reason = why_no_event("energy-pkg", error);
        return error == 0;
    }

    void read(Nanoseconds now, Result& result) override {
        counters_.read(result);
        if (result.reason.empty() && result.values[0] == 0 && now - opened_ >= settled_after)
            result.wait_for("the counters have not moved since the meter was opened");
    }

  private:
    BoxEvents counters_;
    Nanoseconds opened_ = 0;
};

}  // namespace

bool dies_repeat_their_package() {
    return read_processor().vendor != Vendor::intel;
}

Coverage rapl_coverage(bool with_memory) {
    if (with_memory)
        return {EASNODE_PACKAGES_AND_MEMORY, "RAPL package+DRAM: not the whole node", 0};
    return {EASNODE_PACKAGES, "RAPL package: no memory, not the whole node", 0};
}

std::unique_ptr<Source> open_rapl_pmu(const Request& request, std::string& reason) {
    auto source = std::make_unique<RaplPmu>();
    return source->open(request, reason) ? std::move(source) : nullptr;
}

}  // namespace eas::node
