#include "node/meter/BoxEvents.h"

#include <cerrno>

#include "node/files/KeptFile.h"
#include "node/meter/Progress.h"

namespace eas::node {

int BoxEvents::add(const PmuDevice& device, const std::vector<BoxEvent>& events) {
    std::vector<EventCode> codes;
    std::vector<double> worth;
    for (const BoxEvent& event : events) {
        codes.push_back({device.type, event.config});
        worth.push_back(event.worth);
    }
    for (const int cpu : device.cpus) {
        Box box{device.name, worth, {}};
        const int error = box.group.open(codes.data(), codes.size(), cpu);
        if (error != 0)
            return error;
        boxes_.push_back(std::move(box));
    }
    return 0;
}

void BoxEvents::read(Result& result) {
    double sum = 0;
    for (Box& box : boxes_) {
        const Progress progress = box.group.update();
        const int error = errno;
        if (!goes_on(
                progress, [&box] { return box.name; }, scaled_, result)) {
            result.end(progress == Progress::stopped
                           ? box.name + " has stopped: the CPUs of its socket are offline"
                           : why(box.name, error));
            return;
        }
        for (std::size_t i = 0; i < box.worth.size(); ++i)
            sum += static_cast<double>(box.group.totals()[i]) * box.worth[i];
    }
    result.values[0] = sum;
    result.quality = scaled_ ? EASNODE_SCALED : EASNODE_COUNTED;
}

}  // namespace eas::node
