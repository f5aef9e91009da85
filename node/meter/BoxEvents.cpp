#include "node/meter/BoxEvents.h"

#include <cerrno>

#include "node/files/KeptFile.h"

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
        switch (box.group.update()) {
            case Progress::counted:
                break;
            case Progress::scaled:
                scaled_ = true;
                break;
            case Progress::no_data:
                result.wait_for(box.name + ": other users had the counters since the last reading");
                break;
            case Progress::stopped:
                result.end(box.name + " has stopped: the CPUs of its socket are offline");
                return;
            case Progress::unreadable:
                result.end(why(box.name, errno));
                return;
        }
        for (std::size_t i = 0; i < box.worth.size(); ++i)
            sum += static_cast<double>(box.group.totals()[i]) * box.worth[i];
    }
    result.values[0] = sum;
    result.quality = scaled_ ? EASNODE_SCALED : EASNODE_COUNTED;
}

}  // namespace eas::node
